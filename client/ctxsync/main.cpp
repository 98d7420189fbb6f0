// ctxsync: the command line of the context-sync client. See ctxsync --help.

#include "ctxsync_cli_t.h"

#include "utility/allocator_tuning_t.h"

#include <QCoreApplication>

#include <csignal>

namespace {
void on_signal(int)
{
    ctxsync_cli_t::request_stop();
}
} // namespace

int main(int argc, char** argv)
{
    // Chunks are parsed on the MQTT thread and decoded on this one; keeping their pages mapped
    // saves about a third of the CPU per chunk (see allocator_tuning_t). Transfers end with the
    // command; the long-running commands either move no chunks (watch) or give the free pages
    // back after each round of downloads (sync).
    utility::allocator_tuning_t::keep_chunk_pages();
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("ctxsync"));
    QCoreApplication::setApplicationVersion(QStringLiteral(CONTEXT_SYNC_CLIENT_VERSION));
    std::signal(SIGINT, on_signal);
    std::signal(SIGTERM, on_signal);
    ctxsync_cli_t cli;
    return cli.run(QCoreApplication::arguments().mid(1));
}
