// hangar-feed: the signer for Hangar feed documents.
//
//   hangar-feed make-ca --out DIR [--cn NAME] [--days N] [--keep-existing]
//       Writes a development CA (ca.crt, ca.key) and a signing certificate issued
//       by it (signer.crt, signer.key) into DIR. Keys are written owner-only.
//   hangar-feed sign --cert signer.crt --key signer.key [--digest sha256] IN.json OUT.feed.xz.signed
//       Checks that IN is a JSON object, compresses it with xz and wraps it in CMS
//       SignedData (content attached, signer certificate included).
//       --raw skips the JSON check, --no-xz signs the bytes as they are (test fixtures).
//   hangar-feed verify --ca ca.crt IN.feed.xz.signed
//       Checks the signature against the CA and prints the JSON.
#include "FeedCrypto.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QSaveFile>
#include <QTextStream>
#include <cstdio>

namespace {

int usage()
{
    std::fputs("usage: hangar-feed make-ca|sign|verify [options] (see --help of each command)\n", stderr);
    return 2;
}

int fail(const QString &message)
{
    std::fprintf(stderr, "hangar-feed: %s\n", qPrintable(message));
    return 1;
}

bool readFile(const QString &path, QByteArray *data, QString *error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = "Cannot read " + path + ": " + file.errorString();
        return false;
    }
    *data = file.readAll();
    return true;
}

bool writeFile(const QString &path, const QByteArray &data, bool secret, QString *error)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        *error = "Cannot write " + path + ": " + file.errorString();
        return false;
    }
    if (secret)
        file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    file.write(data);
    if (!file.commit()) {
        *error = "Cannot write " + path + ": " + file.errorString();
        return false;
    }
    return true;
}

int makeCa(const QStringList &args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription("Makes a development CA and a feed signing certificate.");
    parser.addHelpOption();
    parser.addOption({ "out", "Output folder.", "dir" });
    parser.addOption({ "cn", "Common name of the CA.", "name", "Hangar development feed CA" });
    parser.addOption({ "days", "Validity in days.", "days", "3650" });
    parser.addOption({ "keep-existing", "Do nothing when the folder already holds a CA." });
    parser.process(args);
    if (!parser.isSet("out"))
        return fail("make-ca needs --out");
    const QString dir = parser.value("out");
    bool ok = false;
    const int days = parser.value("days").toInt(&ok);
    if (!ok || days <= 0)
        return fail("--days must be a positive number");
    if (!QDir().mkpath(dir))
        return fail("Cannot create " + dir);
    // The build asks for a CA on every run; an existing one must survive, or
    // every feed signed for it would stop verifying.
    if (parser.isSet("keep-existing") && QFile::exists(dir + "/ca.crt") && QFile::exists(dir + "/ca.key")
        && QFile::exists(dir + "/signer.crt") && QFile::exists(dir + "/signer.key"))
        return 0;

    QString error;
    FeedCrypto::CertificatePair ca, signer;
    if (!FeedCrypto::makeCa(parser.value("cn"), days, &ca, &error)
        || !FeedCrypto::makeSigner(ca, parser.value("cn") + " feed signer", days, &signer, &error))
        return fail(error);
    if (!writeFile(dir + "/ca.key", ca.keyPem, true, &error)
        || !writeFile(dir + "/signer.key", signer.keyPem, true, &error)
        || !writeFile(dir + "/ca.crt", ca.certPem, false, &error)
        || !writeFile(dir + "/signer.crt", signer.certPem, false, &error))
        return fail(error);
    return 0;
}

int sign(const QStringList &args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription("Packs a feed JSON file into a signed feed document.");
    parser.addHelpOption();
    parser.addOption({ "cert", "Signing certificate (PEM).", "file" });
    parser.addOption({ "key", "Signing key (PEM).", "file" });
    parser.addOption({ "digest", "Digest algorithm.", "name", "sha256" });
    parser.addOption({ "preset", "xz preset 0-9 (default: preset 6 tuned for fast decoding).", "n" });
    parser.addOption({ "raw", "Do not require a JSON object." });
    parser.addOption({ "no-xz", "Sign the input as it is, without xz." });
    parser.addPositionalArgument("input", "Feed JSON file.");
    parser.addPositionalArgument("output", "Signed feed document.");
    parser.process(args);
    const QStringList files = parser.positionalArguments();
    if (files.size() != 2 || !parser.isSet("cert") || !parser.isSet("key"))
        return fail("sign needs --cert, --key, an input and an output");
    bool ok = true;
    const int preset = parser.isSet("preset") ? parser.value("preset").toInt(&ok) : -1;
    if (!ok || (parser.isSet("preset") && (preset < 0 || preset > 9)))
        return fail("--preset must be 0 to 9");

    QString error;
    QByteArray input, cert, key;
    if (!readFile(files[0], &input, &error) || !readFile(parser.value("cert"), &cert, &error)
        || !readFile(parser.value("key"), &key, &error))
        return fail(error);
    if (!parser.isSet("raw")) {
        QJsonParseError parseError;
        const QJsonDocument doc = QJsonDocument::fromJson(input, &parseError);
        if (parseError.error != QJsonParseError::NoError)
            return fail(files[0] + " is not valid JSON: " + parseError.errorString() + " at offset "
                + QString::number(parseError.offset));
        if (!doc.isObject())
            return fail(files[0] + " is not a JSON object");
    }
    QByteArray content = input;
    if (!parser.isSet("no-xz") && !FeedCrypto::compressXZ(input, preset, &content, &error))
        return fail(error);
    QByteArray der;
    if (!FeedCrypto::signCms(content, cert, key, parser.value("digest"), &der, &error)
        || !writeFile(files[1], der, false, &error))
        return fail(error);
    return 0;
}

int verify(const QStringList &args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription("Checks a signed feed document and prints its JSON.");
    parser.addHelpOption();
    parser.addOption({ "ca", "Trusted CA certificate (PEM).", "file" });
    parser.addPositionalArgument("input", "Signed feed document.");
    parser.process(args);
    if (parser.positionalArguments().size() != 1 || !parser.isSet("ca"))
        return fail("verify needs --ca and an input");
    QString error;
    QByteArray der, ca, content, json;
    if (!readFile(parser.positionalArguments().first(), &der, &error)
        || !readFile(parser.value("ca"), &ca, &error))
        return fail(error);
    if (!FeedCrypto::verifyCms(der, ca, &content, &error)
        || !FeedCrypto::decompressXZ(content, &json, &error))
        return fail(error);
    std::fwrite(json.constData(), 1, size_t(json.size()), stdout);
    return 0;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    app.setApplicationName("hangar-feed");
    QStringList args = app.arguments();
    if (args.size() < 2)
        return usage();
    const QString command = args.takeAt(1);
    if (command == "make-ca")
        return makeCa(args);
    if (command == "sign")
        return sign(args);
    if (command == "verify")
        return verify(args);
    return usage();
}
