#include "base/JsonEditor.h"

#include "FileSizeLimit.h"

#include <QJsonDocument>
#include <QTemporaryDir>
#include <QtTest>
#include <sys/stat.h>

namespace {

QJsonObject parse(const QByteArray &text)
{
    return QJsonDocument::fromJson(text).object();
}

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class JsonEditorTest : public QObject
{
    Q_OBJECT
private slots:
    void editsByPathAndReportsWhatItCannotWalk()
    {
        QJsonObject json
            = parse(R"({"keep": 1, "update": 7, "a": {"b": {"x": true}}, "s": "t", "list": [1]})");
        JsonEditor editor(json);
        QVERIFY(editor.insert({ "a", "b", "c" }, 3).isSuccessful());
        QVERIFY(editor.insert({ "new", "deep", "leaf" }, "v").isSuccessful());
        QVERIFY(
            editor.insert({ "update", "filter" }, QJsonObject {}).isSuccessful()); // damaged node replaced
        QVERIFY(editor.updateArray({ "list" }, [](QJsonArray &a) { a.append(2); }).isSuccessful());
        QVERIFY(editor.updateArray({ "keep" }, [](QJsonArray &a) { a.append(a.size()); }).isSuccessful());
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
        QVERIFY(editor.remove({ "a", "absent" }).isSuccessful());
        QVERIFY(editor.remove({ "a", "b", "c" }).isSuccessful() && editor.remove("new").isSuccessful());
        QCOMPARE(json.value("a"), QJsonValue(parse(R"({"b": {"x": true}})")));
        QVERIFY(!json.contains("new"));
    }

    // Anything but a readable regular file holding an object is refused with the
    // path and the reason, without waiting on it.
    void loadRefuses_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("error"); // after "<path>" was put where the file should be
        QTest::newRow("missing") << "missing"
                                 << "Unable to open file: %1";
        QTest::newRow("FIFO") << "fifo"
                              << "Unable to open file: %1 (not a regular file)";
        QTest::newRow("folder") << "folder"
                                << "Unable to open file: %1 (not a regular file)";
        QTest::newRow("device") << "device"
                                << "Unable to open file: %1 (not a regular file)";
        QTest::newRow("cut short") << "{\n"
                                   << "Unable to parse json in '%1': unterminated object";
        QTest::newRow("array root") << "[{\"a\": 1}]"
                                    << "Unable to parse json in '%1': root element must be an object";
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
            QVERIFY(JsonEditor::writeFileAtomically(path, kind.toUtf8()).isSuccessful());
        const QString refused = JsonEditor::loadJsonFile(path).error();
        QVERIFY2(refused.startsWith(error.arg(path)), qPrintable(refused));
    }

    void saveReplacesTheFileWholeOrNotAtAll()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("a/b/state.json");
        const QJsonObject first = parse(R"({"x": {"y": [1, 2, 3]}, "name": "ünï"})");
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression("^Creating directory .*/a/b$"));
        QVERIFY(JsonEditor::saveJsonFile(path, first).isSuccessful());
        QCOMPARE(JsonEditor::loadJsonFile(path).value(), first);
        QVERIFY(readAll(path).contains("\n    \"name\"")); // indented
        struct stat before;
        QVERIFY(::stat(QFile::encodeName(path).constData(), &before) == 0);
        QVERIFY(JsonEditor::saveJsonFile(path, parse(R"({"z": 1})")).isSuccessful());
        struct stat after;
        QVERIFY(::stat(QFile::encodeName(path).constData(), &after) == 0);
        QVERIFY(after.st_ino != before.st_ino); // renamed into place, not rewritten
        const QByteArray old = readAll(path);

        // A disk that fills up half way, or at the flush of a small document.
        for (const rlim_t limit : { rlim_t(4096), rlim_t(8) }) {
            FileSizeLimit full(limit);
            QJsonObject big { { "payload", QString(limit > 8 ? 200000 : 10, QChar('p')) } };
            QCOMPARE(JsonEditor::saveJsonFile(path, big).error(), "Unable to write file: " + path);
        }
        QCOMPARE(readAll(path), old);
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
