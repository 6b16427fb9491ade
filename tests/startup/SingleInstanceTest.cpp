#include "SharedMessageQueue.h"
#include "SingleApplicationInstanceController.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>
#include <cstring>

// The queue layout and the controller, driven in-process. The hand-over between
// two real processes is covered by StartupProcessTest.
class SingleInstanceTest : public QObject
{
    Q_OBJECT

private:
    static constexpr int Size = SingleApplicationInstanceController::SharedMemorySize;
    QTemporaryDir m_tmp;
    int m_keyCounter = 0;

    // A key of our own per test, so that no leftover of another run can interfere.
    QString freshKey()
    {
        return SingleApplicationInstanceController::uniqueApplicationKey(
            m_tmp.path() + "/home" + QString::number(++m_keyCounter));
    }

    static QByteArray emptyBlock()
    {
        QByteArray block(Size, char(0x5a)); // garbage everywhere but the start
        SharedMessageQueue::clear(block.data(), block.size());
        return block;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_tmp.isValid());
        // The key files of shared memory and semaphores go to the temporary folder.
        qputenv("TMPDIR", m_tmp.path().toUtf8());
    }

    // The key is shared with every other build of the manager that may run in the
    // same session (an older one handing over to a newer one): pinned, not recomputed.
    void keyIsStableAcrossBuildsAndDiffersPerHome()
    {
        QCOMPARE(SingleApplicationInstanceController::uniqueApplicationKey("/home/alice"),
            QString("77926738a880cbb1487dfebb8c13f7f2"));
        QVERIFY(SingleApplicationInstanceController::uniqueApplicationKey("/home/alice")
            != SingleApplicationInstanceController::uniqueApplicationKey("/home/alice/"));
        QCOMPARE(SingleApplicationInstanceController::uniqueApplicationKey("/home/ünï").size(), 32);
    }

    void queueKeepsMessagesInOrderAndEmptiesOnRead()
    {
        QByteArray block = emptyBlock();
        QVERIFY(SharedMessageQueue::append(block.data(), Size, "--minimize"));
        QVERIFY(SharedMessageQueue::append(block.data(), Size, "url vantrel://open?x=ü"));
        QVERIFY(SharedMessageQueue::append(block.data(), Size, "activate "));
        // The bytes are the documented layout: 16-bit little-endian length, then UTF-8.
        QCOMPARE(block.left(12), QByteArray("\x0a\x00--minimize", 12));
        QCOMPARE(SharedMessageQueue::takeAll(block.data(), Size),
            QStringList({ "--minimize", "url vantrel://open?x=ü", "activate " }));
        QCOMPARE(SharedMessageQueue::takeAll(block.data(), Size), QStringList());
    }

    // A length whose low byte is zero must not read as the end of the queue.
    void messageOfMultipleOf256BytesSurvives()
    {
        QByteArray block = emptyBlock();
        const QString first = "url " + QString(252, 'a'); // 256 bytes
        const QString second = "url " + QString(508, 'b'); // 512 bytes
        QVERIFY(SharedMessageQueue::append(block.data(), Size, first));
        QVERIFY(SharedMessageQueue::append(block.data(), Size, second));
        QVERIFY(SharedMessageQueue::append(block.data(), Size, "activate "));
        QCOMPARE(
            SharedMessageQueue::takeAll(block.data(), Size), QStringList({ first, second, "activate " }));
    }

    void fullQueueRefusesAndKeepsWhatItHas()
    {
        QByteArray block = emptyBlock();
        // Fills 10,240 - 10 bytes exactly: 2 + 10226 bytes of record, two terminator bytes.
        const QString filler(10226, 'f');
        QVERIFY(SharedMessageQueue::append(block.data(), Size, filler));
        QVERIFY(!SharedMessageQueue::append(block.data(), Size, "x"));
        QCOMPARE(SharedMessageQueue::takeAll(block.data(), Size), QStringList(filler));

        const QString tooBig(10227, 'g');
        QVERIFY(!SharedMessageQueue::append(block.data(), Size, tooBig));
        QCOMPARE(SharedMessageQueue::takeAll(block.data(), Size), QStringList());

        // Many small messages: the last ones that do not fit are refused, none is torn.
        int accepted = 0;
        while (SharedMessageQueue::append(
            block.data(), Size, QString("message %1").arg(accepted, 4, 10, QChar('0'))))
            ++accepted;
        const QStringList read = SharedMessageQueue::takeAll(block.data(), Size);
        QCOMPARE(read.size(), accepted);
        QCOMPARE(read.last(), QString("message %1").arg(accepted - 1, 4, 10, QChar('0')));
        QVERIFY(accepted > 700);
    }

    void overlongMessageIsRefusedEvenWithRoom()
    {
        QByteArray big(70000, 0);
        SharedMessageQueue::clear(big.data(), big.size());
        QVERIFY(!SharedMessageQueue::append(big.data(), big.size(), QString(65536, 'z')));
        QVERIFY(SharedMessageQueue::append(big.data(), big.size(), QString(65535, 'z')));
        QCOMPARE(SharedMessageQueue::takeAll(big.data(), big.size()).value(0).size(), 65535);
    }

    // A record whose length runs past the usable part (a block scribbled on by a
    // broken writer) ends the reading instead of reading beyond the block.
    void corruptLengthStopsReading()
    {
        QByteArray block = emptyBlock();
        QVERIFY(SharedMessageQueue::append(block.data(), Size, "first"));
        const int second = 2 + 5;
        block[second] = char(0xff);
        block[second + 1] = char(0x7f);
        QCOMPARE(SharedMessageQueue::takeAll(block.data(), Size), QStringList("first"));
        QCOMPARE(SharedMessageQueue::takeAll(block.data(), Size), QStringList());
    }

    void secondControllerHandsMessagesToTheMaster()
    {
        const QString key = freshKey();
        SingleApplicationInstanceController master(key);
        QVERIFY(master.isMasterInstance());
        QSignalSpy received(&master, &SingleApplicationInstanceController::messageAvailable);

        {
            SingleApplicationInstanceController second(key);
            QVERIFY(!second.isMasterInstance());
            QVERIFY(second.sendMessageToMasterInstance("--minimize"));
            QVERIFY(second.sendMessageToMasterInstance("url https://example.invalid/a b"));
        }
        QStringList all;
        QTRY_VERIFY_WITH_TIMEOUT(
            [&] {
                while (!received.isEmpty())
                    all << received.takeFirst().at(0).toStringList();
                return all.size() >= 2;
            }(),
            10000);
        QCOMPARE(all, QStringList({ "--minimize", "url https://example.invalid/a b" }));
    }

    void messagesQueuedWhileMasterIsBusyArriveTogetherAndOverflowIsDropped()
    {
        const QString key = freshKey();
        SingleApplicationInstanceController master(key);
        QVERIFY(master.isMasterInstance());
        QSignalSpy received(&master, &SingleApplicationInstanceController::messageAvailable);

        // No event loop runs while these are sent, like a master busy on its main thread.
        SingleApplicationInstanceController second(key);
        QVERIFY(second.sendMessageToMasterInstance("url " + QString(6000, 'a')));
        QVERIFY(!second.sendMessageToMasterInstance("url " + QString(6000, 'b')));
        QVERIFY(second.sendMessageToMasterInstance("activate "));

        QTRY_VERIFY_WITH_TIMEOUT(!received.isEmpty(), 10000);
        QCOMPARE(received.takeFirst().at(0).toStringList(),
            QStringList({ "url " + QString(6000, 'a'), "activate " }));
        // The later wake-ups find the queue empty and signal nothing.
        QTest::qWait(200);
        QCOMPARE(received.size(), 0);
    }

    void blockIsFreedWhenMasterGoesAway()
    {
        const QString key = freshKey();
        {
            SingleApplicationInstanceController master(key);
            QVERIFY(master.isMasterInstance());
        }
        QSharedMemory probe(key);
        QVERIFY(!probe.attach());
        SingleApplicationInstanceController next(key);
        QVERIFY(next.isMasterInstance());
    }
};

QTEST_GUILESS_MAIN(SingleInstanceTest)
#include "SingleInstanceTest.moc"
