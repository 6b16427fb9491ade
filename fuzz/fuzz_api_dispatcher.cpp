// The UI API's dispatcher: one query text in, exactly one answer out, whatever the text.
// The table holds an immediate and a deferred method besides the unknown names.

#include "FuzzSupport.h"
#include "api/SelfApi.h"
#include "api/UIApiConnector.h"

#include <QCoreApplication>

namespace {

class NoDesktop : public UIApiConnector
{
public:
    void hideWindow() override {}
    void quit() override {}
    void showUninstallFeebackPrompt(const QJsonObject &) override {}
    Result<void> openUrl(const QUrl &) override { return {}; }
    Result<void> openFile(const QString &) override { return {}; }
    Result<void> showDirectory(const QString &) override { return {}; }
    Result<void> openSystemProxySettings() override { return {}; }
    QString fileManagerName() const override { return {}; }
    Result<QString> readClipboard() const override { return QString(); }
    void selectDirectory(const QString &, std::function<void(Result<QString>)> done) override
    {
        done(Error(QStringLiteral("no desktop")));
    }
    bool isGlobalHotkeyAvailable() const override { return false; }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::quiet();
    static int argc = 1;
    static char name[] = "fuzz";
    static char *argv[] = { name, nullptr };
    static QCoreApplication app(argc, argv);
    static NoDesktop desktop;
    static SelfApi *api = [] {
        auto *created = new SelfApi(&desktop);
        created->addImmediateMethod(QStringLiteral("echo"),
            [](const QJsonObject &request) -> Result<QString> { return request.value("text").toString(); });
        created->addMethod(QStringLiteral("later"),
            [](const QJsonObject &request, const SelfApi::Reply &reply) { reply(request.keys().join(',')); });
        return created;
    }();
    int answers = 0;
    api->handleQuery(QString::fromUtf8(fuzz::bytes(data, size)), [&answers](const Result<QString> &) { ++answers; });
    QCoreApplication::processEvents();
    fuzz::check(answers == 1);
    return 0;
}
