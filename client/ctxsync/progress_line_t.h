// progress_line_t draws the one-line progress of a transfer on a terminal: nothing for the first
// second (short transfers stay quiet), then at most ten redraws a second of the same line
// ("\r" and erase-to-end), and a final erase so that the result lines start clean. It is disabled
// when the output is not a terminal or when the output is JSON for scripts.
//
// Thread: the thread that drives the transfer (the program's main thread). Owns nothing but the
// clock; writes to the FILE it is given; emits nothing.
#pragma once

#include <QElapsedTimer>
#include <QString>

#include <cstdio>

class progress_line_t {
public:
    static constexpr qint64 QUIET_MS = 1000;
    static constexpr qint64 REDRAW_MS = 100;

    progress_line_t(std::FILE* out, bool enabled, const QString& verb);
    ~progress_line_t();

    progress_line_t(const progress_line_t&) = delete;
    progress_line_t& operator=(const progress_line_t&) = delete;

    void update(qint64 bytes, int files_done, int files_total, const QString& current);
    // update() with the time given explicitly (milliseconds since the transfer began).
    void update_at(
        qint64 elapsed_ms, qint64 bytes, int files_done, int files_total, const QString& current);
    // Erases the line if one was drawn.
    void finish();
    bool shown() const { return shown_; }

    // The text of the line, without the terminal codes.
    static QString format(const QString& verb, qint64 elapsed_ms, qint64 bytes, int files_done,
        int files_total, const QString& current);
    // "512 B", "1.5 KiB", "12.3 MiB".
    static QString human_bytes(qint64 bytes);

    // True when `out` is a terminal.
    static bool is_terminal(std::FILE* out);

private:
    std::FILE* out_;
    bool enabled_;
    QString verb_;
    QElapsedTimer clock_;
    qint64 last_draw_ms_ = -1;
    bool shown_ = false;
};
