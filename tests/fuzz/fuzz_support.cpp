#include "fuzz_support.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtGlobal>

namespace fuzz_support {

namespace {

void quiet_handler(QtMsgType, const QMessageLogContext&, const QString&)
{
}

} // namespace

void ensure_application()
{
    static int argc = 1;
    static char name[] = "fuzzer";
    static char* argv[] = { name, nullptr };
    static QCoreApplication* application = nullptr;
    if (application)
        return;
    if (!qEnvironmentVariableIsSet("CONTEXT_SYNC_FUZZ_VERBOSE"))
        qInstallMessageHandler(quiet_handler);
    // Never deleted: the process ends with the fuzzer's exit(), and objects of the targets that
    // are static too may still need it until then.
    application = new QCoreApplication(argc, argv);
}

QString scratch_dir()
{
    static QTemporaryDir* dir = nullptr;
    if (!dir) {
        const QString base = QDir(QStringLiteral("/dev/shm")).exists() ? QStringLiteral("/dev/shm")
                                                                       : QDir::tempPath();
        dir = new QTemporaryDir(base + QStringLiteral("/context_sync_fuzz_XXXXXX"));
        if (!dir->isValid()) {
            std::fprintf(stderr, "cannot create a scratch folder below %s\n", qPrintable(base));
            std::abort();
        }
        // Removed at exit by a static destructor, even when libFuzzer ends the process.
        static struct cleanup_t {
            ~cleanup_t() { delete dir; }
        } cleanup;
    }
    return dir->path() + QLatin1Char('/');
}

bool write_file(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    return file.write(bytes) == bytes.size();
}

} // namespace fuzz_support
