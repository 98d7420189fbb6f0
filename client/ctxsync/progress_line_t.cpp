#include "progress_line_t.h"

#include <unistd.h>

progress_line_t::progress_line_t(std::FILE* out, bool enabled, const QString& verb)
    : out_(out)
    , enabled_(enabled)
    , verb_(verb)
{
    clock_.start();
}

progress_line_t::~progress_line_t()
{
    finish();
}

bool progress_line_t::is_terminal(std::FILE* out)
{
    return out && ::isatty(::fileno(out)) == 1;
}

QString progress_line_t::human_bytes(qint64 bytes)
{
    if (bytes < 1024)
        return QStringLiteral("%1 B").arg(bytes);
    if (bytes < 1024 * 1024)
        return QStringLiteral("%1 KiB").arg(double(bytes) / 1024.0, 0, 'f', 1);
    return QStringLiteral("%1 MiB").arg(double(bytes) / (1024.0 * 1024.0), 0, 'f', 1);
}

QString progress_line_t::format(const QString& verb, qint64 elapsed_ms, qint64 bytes,
    int files_done, int files_total, const QString& current)
{
    const qint64 rate = elapsed_ms > 0 ? bytes * 1000 / elapsed_ms : 0;
    return QStringLiteral("%1 %2/%3 files, %4, %5/s  %6")
        .arg(verb)
        .arg(files_done)
        .arg(files_total)
        .arg(human_bytes(bytes), human_bytes(rate), current);
}

void progress_line_t::update(qint64 bytes, int files_done, int files_total, const QString& current)
{
    update_at(clock_.elapsed(), bytes, files_done, files_total, current);
}

void progress_line_t::update_at(
    qint64 elapsed_ms, qint64 bytes, int files_done, int files_total, const QString& current)
{
    if (!enabled_ || elapsed_ms < QUIET_MS)
        return;
    if (last_draw_ms_ >= 0 && elapsed_ms - last_draw_ms_ < REDRAW_MS)
        return;
    last_draw_ms_ = elapsed_ms;
    const QByteArray line
        = format(verb_, elapsed_ms, bytes, files_done, files_total, current).toUtf8();
    std::fprintf(out_, "\r\033[K%s", line.constData());
    std::fflush(out_);
    shown_ = true;
}

void progress_line_t::finish()
{
    if (!shown_)
        return;
    std::fputs("\r\033[K", out_);
    std::fflush(out_);
    shown_ = false;
}
