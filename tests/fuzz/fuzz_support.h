// Shared pieces of the libFuzzer targets: the one QCoreApplication of the process (the library's
// objects and queued calls need it), a scratch folder for targets that must put their input on
// disk, and FUZZ_CHECK, which turns a broken property into a crash that libFuzzer records.
//
// Thread: every function runs on the fuzzer's thread. The application and the scratch folder live
// until the process exits. Qt's message streams are silenced (the library reports some refusals
// on qWarning, which would flood the fuzzer's output) unless CONTEXT_SYNC_FUZZ_VERBOSE is set.
#pragma once

#include <QByteArray>
#include <QString>

#include <cstdio>
#include <cstdlib>

namespace fuzz_support {

// Creates the QCoreApplication on the first call.
void ensure_application();

// A private folder for this process, with a trailing "/", created on the first call (below
// /dev/shm when it exists, so that file round trips stay in memory).
QString scratch_dir();

// Replaces the contents of the file at `path` with `bytes`; false when it cannot be written.
bool write_file(const QString& path, const QByteArray& bytes);

} // namespace fuzz_support

// A property every input must keep; a violation aborts so that libFuzzer saves the input.
#define FUZZ_CHECK(condition)                                                                      \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            std::fprintf(                                                                          \
                stderr, "FUZZ_CHECK failed: %s (%s:%d)\n", #condition, __FILE__, __LINE__);        \
            std::abort();                                                                          \
        }                                                                                          \
    } while (false)
