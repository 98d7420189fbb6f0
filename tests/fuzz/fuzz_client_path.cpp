// Paths as clients send them (chunk "file", download, delete, rename and replace entries) and the
// monitor's path helpers. The first byte chooses how the rest becomes text: even as UTF-8, odd
// as raw UTF-16 (which also yields unpaired surrogates, something UTF-8 decoding never does).
// Properties:
//   - a path judged safe is joined to the root without climbing out of it or naming it: cleaning
//     root + path changes nothing, and it has no backslash, no control character and at most
//     MAX_PATH_BYTES bytes of UTF-8;
//   - the printable form of any path has no control character left, and equals the path exactly
//     when the path had none and no backslash;
//   - joining to a root and taking the root away again gives the path back;
//   - adjust_path_directory never fails, and a path without "./" in it only gains a trailing "/"
//     when it lacks one.

#include "context_sync/context_sync/transfer_manager/path_safety_t.h"
#include "context_sync/context_sync/watcher/context_monitor_t.h"

#include "fuzz_support.h"

#include <QChar>
#include <QDir>

#include <cstddef>
#include <cstdint>

using context_sync_engine::context_monitor_t;
using context_sync_engine::path_safety_t;

namespace {

bool has_control(const QString& text)
{
    for (const QChar ch : text) {
        if (ch.category() == QChar::Other_Control)
            return true;
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz_support::ensure_application();
    if (size == 0)
        return 0;
    const char* rest = reinterpret_cast<const char*>(data) + 1;
    const qsizetype rest_size = qsizetype(size - 1);
    const QString path = data[0] % 2 == 0
        ? QString::fromUtf8(rest, rest_size)
        : QString(reinterpret_cast<const QChar*>(rest), rest_size / 2);

    static const QString root = QStringLiteral("/srv/context_root/");

    QString reason;
    const bool safe = path_safety_t::is_safe_relative_path(path, &reason);
    FUZZ_CHECK(safe == reason.isEmpty());
    if (safe) {
        FUZZ_CHECK(!path.contains(QLatin1Char('\\')));
        FUZZ_CHECK(!has_control(path));
        FUZZ_CHECK(path.toUtf8().size() <= path_safety_t::MAX_PATH_BYTES);
        const QString joined = context_monitor_t::relative_to_absolute_path(root, path);
        FUZZ_CHECK(QDir::cleanPath(joined) == joined);
        FUZZ_CHECK(joined.startsWith(root) && joined.size() > root.size());
    }

    const QString printable = path_safety_t::printable(path);
    FUZZ_CHECK(!has_control(printable));
    FUZZ_CHECK((printable == path) == (!has_control(path) && !path.contains(QLatin1Char('\\'))));

    const QString absolute = context_monitor_t::relative_to_absolute_path(root, path);
    FUZZ_CHECK(context_monitor_t::absolute_to_relative_path(root, absolute) == path);

    const QString adjusted = context_monitor_t::adjust_path_directory(path);
    if (!path.contains(QLatin1String("./"))) {
        FUZZ_CHECK(adjusted == (path.endsWith(QLatin1Char('/')) ? path : path + QLatin1Char('/')));
    }
    return 0;
}
