#include "ForeignUser.h"
#include "InstanceMessageCodec.h"
#include "SingleApplicationInstanceController.h"
#include "support/LogCapture.h"

#include <QtTest>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

using Controller = SingleApplicationInstanceController;

namespace {

sockaddr_un addressOf(const QByteArray &path)
{
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.constData(), size_t(path.size()));
    return address;
}

int boundSocket(const QByteArray &path)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr_un address = addressOf(path);
    return ::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0 ? fd : -1;
}

QStringList takeAll(QSignalSpy &spy)
{
    QStringList all;
    while (!spy.isEmpty())
        all << spy.takeFirst().at(0).toStringList();
    return all;
}

} // namespace

// A master and its second starts: controllers with the same key, in folders of each test's own.
class SingleInstanceTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_tmp;
    QString m_key;

    QString runtimeFolder() const { return m_tmp->path() + "/runtime"; }
    QString guardFolder() const { return runtimeFolder() + "/vantrel-hangar"; }

private slots:
    void init()
    {
        m_tmp = std::make_unique<QTemporaryDir>("/tmp/hangar-si-XXXXXX"); // short: socket paths are limited
        QVERIFY(QDir().mkpath(runtimeFolder()) && QDir().mkpath(m_tmp->path() + "/tmp"));
        QVERIFY(::chmod(QFile::encodeName(runtimeFolder()).constData(), 0700) == 0);
        qputenv("XDG_RUNTIME_DIR", runtimeFolder().toUtf8());
        qputenv("TMPDIR", (m_tmp->path() + "/tmp").toUtf8());
        m_key = Controller::uniqueApplicationKey(m_tmp->path());
    }

    // Pinned: an older build hands over to a newer one through the same key.
    void keyCodecAndAGoneOrUnreachableMaster()
    {
        QCOMPARE(
            Controller::uniqueApplicationKey("/home/alice"), QString("77926738a880cbb1487dfebb8c13f7f2"));
        QVERIFY(Controller::uniqueApplicationKey("/home/alice")
            != Controller::uniqueApplicationKey("/home/alice/"));

        // Lengths whose low byte is zero, and a record arriving in pieces.
        const QString a = "url " + QString(252, 'a'), b = "url " + QString(508, 'b') + "ü";
        QByteArray stream = *InstanceMessageCodec::encode(a) + *InstanceMessageCodec::encode(b);
        QCOMPARE(stream.left(4), QByteArray("\x00\x01url", 5).left(4));
        QByteArray buffer = stream.left(300);
        QCOMPARE(InstanceMessageCodec::takeComplete(buffer), QStringList(a));
        buffer += stream.mid(300);
        QVERIFY(InstanceMessageCodec::takeComplete(buffer) == QStringList(b) && buffer.isEmpty());
        QVERIFY(InstanceMessageCodec::encode(QString(65535, 'z'))
            && !InstanceMessageCodec::encode(QString(65536, 'z')));

        const auto guardingMaster = [&] {
            Controller next(m_key);
            return next.isMasterInstance() && next.isGuarding() && QFileInfo::exists(next.socketPath());
        };
        const QString socket = guardFolder() + "/" + m_key + ".socket";
        QVERIFY(guardingMaster() && !QFileInfo::exists(socket));

        // A crashed master's socket: nobody holds the lock, the next start takes over.
        const int stale = boundSocket(QFile::encodeName(socket));
        QVERIFY(stale >= 0 && ::close(stale) == 0);
        QVERIFY(guardingMaster());

        // The lock is held but nobody answers: after the time limit, a master without the guard.
        const int lock = ::open(QFile::encodeName(guardFolder() + "/" + m_key + ".lock").constData(), O_RDWR);
        QVERIFY(lock >= 0 && ::flock(lock, LOCK_EX) == 0);
        LogCapture log;
        Controller unreachable(m_key);
        ::close(lock);
        QVERIFY(unreachable.isMasterInstance() && !unreachable.isGuarding()
            && !unreachable.sendMessageToMasterInstance("activate "));
        QVERIFY(log.contains("Cannot reach the running instance through " + socket));
    }

    void secondStartsHandOverInOrderAndNoCounterRunsOut()
    {
        Controller master(m_key);
        QVERIFY(master.isMasterInstance() && master.isGuarding()
            && master.socketPath() == guardFolder() + "/" + m_key + ".socket");
        QCOMPARE(QFileInfo(guardFolder()).permissions() & 0x0077, QFileDevice::Permissions());
        QSignalSpy received(&master, &Controller::messageAvailable);
        {
            Controller second(m_key);
            QVERIFY(!second.isMasterInstance() && second.sendMessageToMasterInstance("--minimize"));
            QVERIFY(!second.sendMessageToMasterInstance(QString(65536, 'x')));
            QVERIFY(second.sendMessageToMasterInstance("url https://example.invalid/a b"));
        }
        QTRY_COMPARE(received.size(), 1); // one second start, one batch
        QCOMPARE(takeAll(received), QStringList({ "--minimize", "url https://example.invalid/a b" }));

        // More second starts than a 16-bit wake-up counter holds, the master busy for hundreds at a time.
        constexpr int Starts = 33000;
        int delivered = 0;
        QLoggingCategory::setFilterRules("default.info=false");
        for (int i = 0; i < Starts; ++i) {
            Controller second(m_key);
            QVERIFY2(!second.isMasterInstance() && second.sendMessageToMasterInstance("activate "),
                qPrintable(QString::number(i)));
            if (i % 200 == 199) {
                QCoreApplication::processEvents();
                delivered += takeAll(received).size();
            }
        }
        QTRY_VERIFY((delivered += takeAll(received).size()) == Starts);
        QLoggingCategory::setFilterRules(QString());
    }

    // Another user's objects in the guard's place, or a call from them: nothing of ours reaches them.
    void foreignObjectsNeverCaptureOrBlock_data()
    {
        QTest::addColumn<QString>("attack");
        QTest::addColumn<bool>("guarded");
        QTest::addColumn<QString>("warning");
        QTest::newRow("squatted folder in the temporary folder")
            << "squat" << true << "belongs to another user";
        QTest::newRow("runtime folder of someone else") << "runtime" << true << QString();
        QTest::newRow("lock file of someone else") << "lock" << false << "is not a file of ours";
        QTest::newRow("listener of someone else") << "listener" << false << "run by user id";
        QTest::newRow("caller of someone else") << "caller" << true << "Refused a message from user id";
    }

    void foreignObjectsNeverCaptureOrBlock()
    {
        QFETCH(QString, attack);
        QFETCH(bool, guarded);
        QFETCH(QString, warning);
        const std::optional<ForeignUser> foreign = ForeignUser::create();
        if (!foreign)
            QSKIP("needs root to add and become a second user");

        const QString folder = attack == "squat" ? m_tmp->path() + "/tmp/vantrel-hangar-0" : guardFolder();
        const QByteArray socket = QFile::encodeName(folder + "/" + m_key + ".socket");
        const QByteArray lock = QFile::encodeName(folder + "/" + m_key + ".lock");
        const auto giveAway = [&](const QString &path) {
            return ::chown(QFile::encodeName(path).constData(), foreign->uid, foreign->gid) == 0;
        };
        if (attack == "squat")
            qunsetenv("XDG_RUNTIME_DIR");
        QVERIFY(attack != "runtime" || giveAway(runtimeFolder()));
        QVERIFY(QDir().mkpath(folder));
        QVERIFY(::chmod(QFile::encodeName(folder).constData(), attack == "squat" ? 0777 : 0700) == 0);
        QVERIFY(attack != "squat" || giveAway(folder));

        int spied[2]; // what the other user's process receives
        QVERIFY(::pipe(spied) == 0);
        const int lockFd = attack == "lock" || attack == "listener"
            ? ::open(lock.constData(), O_RDWR | O_CREAT, 0600)
            : -1;
        QVERIFY(lockFd < 0 || ::flock(lockFd, LOCK_EX) == 0);
        QVERIFY(attack != "lock" || ::fchown(lockFd, foreign->uid, foreign->gid) == 0);
        const int listener = attack == "squat" || attack == "listener" ? boundSocket(socket) : -1;
        pid_t child = -1;
        auto stopChild = qScopeGuard([&] { ForeignUser::stop(child); });
        if (listener >= 0)
            child = foreign->spawn([&] {
                // Listening after the switch makes the socket's owner the other user.
                ::listen(listener, 8);
                for (;;) {
                    const int fd = ::accept(listener, nullptr, nullptr);
                    char byte;
                    while (fd >= 0 && ::read(fd, &byte, 1) == 1)
                        (void)!::write(spied[1], &byte, 1);
                    ::close(fd);
                }
            });

        LogCapture log;
        std::unique_ptr<Controller> master = std::make_unique<Controller>(m_key);
        QSignalSpy received(master.get(), &Controller::messageAvailable);
        QVERIFY(master->isMasterInstance() && master->isGuarding() == guarded);
        if (!warning.isEmpty() && attack != "caller")
            QVERIFY2(log.count(warning) >= 1, qPrintable(log.messages().join("\n")));
        QVERIFY(!guarded || !master->socketPath().startsWith(folder + "/") || attack == "caller");

        if (attack == "caller") {
            for (const QString &path : { m_tmp->path(), runtimeFolder(), folder })
                QVERIFY(::chmod(QFile::encodeName(path).constData(), 0711) == 0);
            QVERIFY(::chmod(socket.constData(), 0777) == 0);
            const QByteArray record = *InstanceMessageCodec::encode("url https://example.invalid/stolen");
            const sockaddr_un address = addressOf(socket);
            child = foreign->spawn([&] {
                const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
                if (::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0)
                    (void)!::write(fd, record.constData(), size_t(record.size()));
                ::close(fd);
            });
            QTRY_VERIFY(log.contains(warning));
            QVERIFY(received.isEmpty());
            for (const QString &path : { m_tmp->path(), runtimeFolder() })
                QVERIFY(::chmod(QFile::encodeName(path).constData(), 0700) == 0);
        }
        if (guarded) {
            QVERIFY(Controller(m_key).sendMessageToMasterInstance("url mine"));
            QTRY_VERIFY(!received.isEmpty());
            QCOMPARE(takeAll(received), QStringList("url mine"));
        }
        master.reset();
        stopChild.dismiss();
        ForeignUser::stop(child);
        ::fcntl(spied[0], F_SETFL, O_NONBLOCK);
        char byte;
        QCOMPARE(::read(spied[0], &byte, 1), ssize_t(-1)); // not a byte reached them
        for (int fd : { spied[0], spied[1], lockFd, listener })
            ::close(fd);
    }
};

QTEST_GUILESS_MAIN(SingleInstanceTest)
#include "SingleInstanceTest.moc"
