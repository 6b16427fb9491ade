#include "base/JsonEditor.h"

#include "FileSizeLimit.h"
#include "support/TestData.h"

#include <QtTest>
#include <sys/stat.h>

class JsonEditorTest : public QObject
{
    Q_OBJECT
    static QJsonObject parse(const QByteArray &text) { return QJsonDocument::fromJson(text).object(); }
    static ino_t inodeOf(const QString &path)
    {
        struct stat info;
        return ::stat(QFile::encodeName(path).constData(), &info) == 0 ? info.st_ino : 0;
    }

private slots:
    void editsByPathAndReportsWhatItCannotWalk()
    {
        QJsonObject json
            = parse(R"({"keep": 1, "update": 7, "a": {"b": {"x": true}}, "s": "t", "list": [1]})");
        JsonEditor editor(json);
        QVERIFY(editor.insert({ "a", "b", "c" }, 3));
        QVERIFY(editor.insert({ "new", "deep", "leaf" }, "v"));
        QVERIFY(editor.insert({ "update", "filter" }, QJsonObject {})); // damaged node replaced
        QVERIFY(editor.updateArray({ "list" }, [](QJsonArray &a) { a.append(2); }));
        QVERIFY(editor.updateArray({ "keep" }, [](QJsonArray &a) { a.append(a.size()); }));
        const QJsonObject edited
            = parse(R"({"update": {"filter": {}}, "a": {"b": {"x": true, "c": 3}}, "s": "t",
            "new": {"deep": {"leaf": "v"}}, "list": [1, 2], "keep": [0]})");
        QCOMPARE(json, edited);
        QVERIFY(editor.value({ "list", "x" }).isUndefined());

        QCOMPARE(editor.insert(QStringList(), 1).error(), QString("path must not be empty"));
        QCOMPARE(editor.remove(QStringList()).error(), QString("path must not be empty"));
        QCOMPARE(editor.remove({ "a", "zz", "d" }).error(), QString("Cannot find node zz"));
        QCOMPARE(editor.remove({ "s", "x" }).error(), QString("Node s is not an object"));
        QCOMPARE(json, edited);
        QVERIFY(editor.remove({ "a", "absent" }));
        QVERIFY(editor.remove({ "a", "b", "c" }).isSuccessful() && editor.remove("new"));
        QCOMPARE(json.value("a"), QJsonValue(parse(R"({"b": {"x": true}})")));
        QVERIFY(!json.contains("new"));
    }

    // Anything but a readable regular file holding an object is refused with the
    // path and the reason, without waiting on it.
    void loadRefuses_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("error"); // after "<path>" was put where the file should be
        const QString special = "Unable to open file: %1 (not a regular file)";
        for (const auto &[kind, error] : { std::pair<QString, QString>("missing", "Unable to open file: %1"),
                 { "fifo", special }, { "folder", special }, { "device", special },
                 { "{\n", "Unable to parse json in '%1': unterminated object" },
                 { "[{\"a\": 1}]", "Unable to parse json in '%1': root element must be an object" } })
            QTest::newRow(qPrintable(kind)) << kind << error;
    }

    void loadRefuses()
    {
        QFETCH(QString, kind);
        QFETCH(QString, error);
        QTemporaryDir dir;
        QString path = dir.filePath("state.json");
        if (kind == "fifo")
            QVERIFY(::mkfifo(QFile::encodeName(path).constData(), 0600) == 0);
        else if (kind == "folder")
            QVERIFY(QDir().mkpath(path));
        else if (kind == "device")
            path = "/dev/zero";
        else if (kind != "missing")
            QVERIFY(JsonEditor::writeFileAtomically(path, kind.toUtf8()));
        const QString refused = JsonEditor::loadJsonFile(path).error();
        QVERIFY2(refused.startsWith(error.arg(path)), qPrintable(refused));
    }

    void saveReplacesTheFileWholeOrNotAtAll()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("a/b/state.json");
        const QJsonObject first = parse(R"({"x": {"y": [1, 2, 3]}, "name": "ünï"})");
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression("^Creating directory .*/a/b$"));
        QVERIFY(JsonEditor::saveJsonFile(path, first));
        QCOMPARE(JsonEditor::loadJsonFile(path).value(), first);
        QVERIFY(readFile(path).contains("\n    \"name\"")); // indented
        const ino_t before = inodeOf(path);
        QVERIFY(JsonEditor::saveJsonFile(path, parse(R"({"z": 1})")));
        QVERIFY(inodeOf(path) != before); // renamed into place, not rewritten
        const QByteArray old = readFile(path);

        // A disk that fills up half way, or at the flush of a small document.
        for (const rlim_t limit : { rlim_t(4096), rlim_t(8) }) {
            FileSizeLimit full(limit);
            QJsonObject big { { "payload", QString(limit > 8 ? 200000 : 10, QChar('p')) } };
            QCOMPARE(JsonEditor::saveJsonFile(path, big).error(), "Unable to write file: " + path);
        }
        QCOMPARE(readFile(path), old);
        QCOMPARE(
            QDir(dir.filePath("a/b")).entryList(QDir::Files | QDir::Hidden), QStringList { "state.json" });

        // A file where the folder should be, a folder where the file should be.
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression("^Creating directory "));
        QCOMPARE(JsonEditor::saveJsonFile(path + "/sub/x.json", {}).error(),
            "Unable to create directory: " + path + "/sub");
        QCOMPARE(JsonEditor::saveJsonFile(dir.filePath("a"), {}).error(),
            "Unable to open file for writing: " + dir.filePath("a"));
    }
};

QTEST_GUILESS_MAIN(JsonEditorTest)
#include "JsonEditorTest.moc"
