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

ino_t inodeOf(const QString &path)
{
    struct stat info;
    return ::stat(QFile::encodeName(path).constData(), &info) == 0 ? info.st_ino : 0;
}

} // namespace

class JsonEditorTest : public QObject
{
    Q_OBJECT
private slots:
    void insertBuildsMissingObjectsAndReplacesDamagedOnes()
    {
        QJsonObject json = parse(R"({"keep": 1, "update": 7, "a": {"b": {"x": true}}})");
        JsonEditor editor(json);
        QVERIFY(editor.insert({ "a", "b", "c" }, 3).isSuccessful());
        QVERIFY(editor.insert({ "new", "deep", "leaf" }, "v").isSuccessful());
        QVERIFY(editor.insert({ "update", "filter" }, QJsonObject {}).isSuccessful());
        QVERIFY(editor.insert("top", false).isSuccessful());
        QCOMPARE(json, parse(R"({"keep": 1, "top": false, "update": {"filter": {}},
                                 "a": {"b": {"x": true, "c": 3}}, "new": {"deep": {"leaf": "v"}}})"));

        const Result<void> empty = editor.insert(QStringList(), 1);
        QVERIFY(empty.isError());
        QCOMPARE(empty.error(), QString("path must not be empty"));
    }

    void removeReportsTheNodeItCannotWalkAndChangesNothing()
    {
        const QJsonObject original = parse(R"({"a": {"b": 1, "c": {"d": 2}}, "s": "text"})");
        QJsonObject json = original;
        JsonEditor editor(json);

        const Result<void> missing = editor.remove({ "a", "zz", "d" });
        QCOMPARE(missing.error(), QString("Cannot find node zz"));
        const Result<void> notObject = editor.remove({ "s", "x" });
        QCOMPARE(notObject.error(), QString("Node s is not an object"));
        const Result<void> leafNotObject = editor.remove({ "a", "b", "x" });
        QCOMPARE(leafNotObject.error(), QString("Node b is not an object"));
        QCOMPARE(editor.remove(QStringList()).error(), QString("path must not be empty"));
        QCOMPARE(json, original);

        QVERIFY(editor.remove({ "a", "absent" }).isSuccessful());
        QVERIFY(editor.remove({ "a", "c", "d" }).isSuccessful());
        QVERIFY(editor.remove("s").isSuccessful());
        QCOMPARE(json, parse(R"({"a": {"b": 1, "c": {}}})"));
    }

    void updateArrayStartsEmptyWhenAbsentOrOfAnotherType()
    {
        QJsonObject json = parse(R"({"list": [1], "wrong": {"x": 1}})");
        JsonEditor editor(json);
        QVERIFY(editor.updateArray({ "list" }, [](QJsonArray &a) { a.append(2); }).isSuccessful());
        QVERIFY(editor
                    .updateArray({ "wrong" },
                        [](QJsonArray &a) {
                            QCOMPARE(a.size(), 0);
                            a.append("w");
                        })
                    .isSuccessful());
        QVERIFY(editor.updateArray({ "o", "fresh" }, [](QJsonArray &a) { a.append(true); }).isSuccessful());
        QCOMPARE(json, parse(R"({"list": [1, 2], "wrong": ["w"], "o": {"fresh": [true]}})"));
        QCOMPARE(editor.value({ "o", "fresh" }).toArray().size(), 1);
        QVERIFY(editor.value({ "list", "x" }).isUndefined());
    }

    void loadFailuresCarryThePathAndTheReason()
    {
        QTemporaryDir dir;
        const QString missing = dir.filePath("missing.json");
        QCOMPARE(JsonEditor::loadJsonFile(missing).error(), "Unable to open file: " + missing);

        const QString broken = dir.filePath("broken.json");
        QVERIFY(JsonEditor::saveJsonFile(broken, {}).isSuccessful());
        QVERIFY(QFile::resize(broken, 2)); // an object cut short: "{\n"
        const Result<QJsonObject> parsed = JsonEditor::loadJsonFile(broken);
        QVERIFY(parsed.error().startsWith("Unable to parse json in '" + broken + "': "));
        QVERIFY(parsed.error().size() > QString("Unable to parse json in '" + broken + "': ").size());

        const QString array = dir.filePath("array.json");
        QFile arrayFile(array);
        QVERIFY(arrayFile.open(QIODevice::WriteOnly) && arrayFile.write("[{\"a\": 1}]") > 0);
        arrayFile.close();
        QCOMPARE(JsonEditor::loadJsonFile(array).error(),
            "Unable to parse json in '" + array + "': root element must be an object");

        QCOMPARE(JsonEditor::loadJsonFile(dir.path()).isError(), true);
    }

    void saveCreatesFoldersAndReplacesTheFileWhole()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("a/b/c/state.json");
        const QJsonObject first = parse(R"({"x": {"y": [1, 2, 3]}, "name": "ünï"})");
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression("^Creating directory .*/a/b/c$"));
        QVERIFY(JsonEditor::saveJsonFile(path, first).isSuccessful());
        QCOMPARE(JsonEditor::loadJsonFile(path).value(), first);
        QVERIFY(readAll(path).contains("\n    \"name\"")); // indented

        // A shorter document leaves nothing of the longer one behind, and it arrives
        // as a new file renamed into place rather than by rewriting the old one.
        const ino_t before = inodeOf(path);
        QVERIFY(JsonEditor::saveJsonFile(path, parse(R"({"z": 1})")).isSuccessful());
        QCOMPARE(JsonEditor::loadJsonFile(path).value(), parse(R"({"z": 1})"));
        QVERIFY(inodeOf(path) != before);
        QCOMPARE(
            QDir(dir.filePath("a/b/c")).entryList(QDir::Files | QDir::Hidden), QStringList { "state.json" });
    }

    void saveFailuresLeaveTheOldFileIntact()
    {
        QTemporaryDir dir;
        // The folder cannot be created when a regular file sits where it should be.
        const QString blocker = dir.filePath("blocker");
        QFile file(blocker);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.close();
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression("^Creating directory "));
        QCOMPARE(JsonEditor::saveJsonFile(blocker + "/sub/x.json", {}).error(),
            "Unable to create directory: " + blocker + "/sub");

        // A folder in the way of the file itself.
        QVERIFY(QDir().mkpath(dir.filePath("isdir")));
        QCOMPARE(JsonEditor::saveJsonFile(dir.filePath("isdir"), {}).error(),
            "Unable to open file for writing: " + dir.filePath("isdir"));

        // A disk that fills up half way: the old content survives and no temporary is left.
        const QString path = dir.filePath("state.json");
        QVERIFY(JsonEditor::saveJsonFile(path, parse(R"({"old": true})")).isSuccessful());
        const QByteArray old = readAll(path);
        QJsonObject big;
        big.insert("payload", QString(200000, QChar('p')));
        {
            FileSizeLimit limit(4096);
            QCOMPARE(JsonEditor::saveJsonFile(path, big).error(), "Unable to write file: " + path);
        }
        QCOMPARE(readAll(path), old);
        // A small document fits the device's buffer: the short write shows only when
        // the buffer is flushed, and must not pass for success either.
        {
            FileSizeLimit limit(8);
            QCOMPARE(JsonEditor::saveJsonFile(path, parse(R"({"new": "value"})")).error(),
                "Unable to write file: " + path);
        }
        QCOMPARE(readAll(path), old);
        QCOMPARE(QDir(dir.path()).entryList({ "state.json*" }, QDir::Files | QDir::Hidden),
            QStringList { "state.json" });
        QVERIFY(JsonEditor::saveJsonFile(path, big).isSuccessful());
        QCOMPARE(JsonEditor::loadJsonFile(path).value(), big);
    }
};

QTEST_GUILESS_MAIN(JsonEditorTest)
#include "JsonEditorTest.moc"
