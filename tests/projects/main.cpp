#include <QCoreApplication>

int runVcsInfoTests(int argc, char **argv);
int runLatheProjectSourceTests(int argc, char **argv);
int runProjectsManagerTests(int argc, char **argv);

// The three groups share one executable, as the area's tests do.
int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    int failures = 0;
    failures += runVcsInfoTests(argc, argv);
    failures += runLatheProjectSourceTests(argc, argv);
    failures += runProjectsManagerTests(argc, argv);
    return failures;
}
