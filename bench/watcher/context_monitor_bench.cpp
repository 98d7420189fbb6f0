// Benchmarks of the context monitor: the cumulative hash and the tree difference over 10 000
// entries, file hashing against md5sum on the same 200 MB file, the first scan of a root holding
// 5 000 background images against md5sum over the same files, stopping the watcher after it, and
// the rescan after one change.
//
// Large inputs are generated once into $CONTEXT_SYNC_BENCH_DIR (default: the system temporary
// folder + "/context_sync_bench_watcher") and reused by later runs. Each md5sum comparison runs
// in the same benchmark, on the same files, right after a warm-up read, so both sides read from
// the page cache. A "ratio" counter above 1 means the monitor is faster than md5sum.
#include "context_sync/context_sync/watcher/context_monitor_t.h"
#include "unit/context_sync/context_sync/watcher/background_png.h"

#include "platform/logs/classlogs.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>

#include <benchmark/benchmark.h>

#include <cstdio>

#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

using context_sync_engine::context_monitor_t;

namespace {

QString bench_dir()
{
    const QString configured = qEnvironmentVariable("CONTEXT_SYNC_BENCH_DIR");
    const QString dir = configured.isEmpty()
        ? QDir::tempPath() + QStringLiteral("/context_sync_bench_watcher")
        : configured;
    QDir().mkpath(dir);
    return dir;
}

// A file of `size` pseudo-random bytes, written once and reused.
QString big_file(qint64 size)
{
    const QString path = bench_dir() + QStringLiteral("/file_%1.bin").arg(size);
    if (QFileInfo(path).size() == size)
        return path;
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return {};
    QRandomGenerator generator(42);
    QByteArray block(1 << 20, Qt::Uninitialized);
    for (qint64 written = 0; written < size;) {
        generator.fillRange(reinterpret_cast<quint32*>(block.data()), block.size() / 4);
        const qint64 n = std::min<qint64>(block.size(), size - written);
        file.write(block.constData(), n);
        written += n;
    }
    return path;
}

// A context root with `count` distinct, valid 640 x 284 PNGs in background/. The images are made
// once into a shared pool and hard-linked into each root, so roots of different sizes share them.
QString image_root(int count)
{
    const QString pool = bench_dir() + QStringLiteral("/pool/");
    const QString root = bench_dir() + QStringLiteral("/root_%1/").arg(count);
    const QString background = root + QStringLiteral("background/");
    QDir().mkpath(pool);
    QDir().mkpath(background);
    for (int i = 0; i < count; ++i) {
        const QString name = QStringLiteral("image_%1.png").arg(i, 5, 10, QChar('0'));
        if (QFileInfo::exists(background + name))
            continue;
        if (!QFileInfo::exists(pool + name)) {
            QFile file(pool + name);
            if (file.open(QIODevice::WriteOnly))
                file.write(test_support::make_background_png(static_cast<quint32>(i) + 1));
        }
        ::link(QFile::encodeName(pool + name).constData(),
            QFile::encodeName(background + name).constData());
    }
    return root;
}

QStringList files_below(const QString& dir, qint64* total_bytes)
{
    QStringList files;
    *total_bytes = 0;
    QDirIterator it(dir, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        files.append(it.next());
        *total_bytes += it.fileInfo().size();
    }
    files.sort();
    return files;
}

// Reads the files once so that both sides of a comparison start from the page cache.
void warm_up(const QStringList& files)
{
    QByteArray buffer(1 << 20, Qt::Uninitialized);
    for (const QString& path : files) {
        QFile file(path);
        if (file.open(QIODevice::ReadOnly))
            while (file.read(buffer.data(), buffer.size()) > 0) { }
    }
}

// Seconds md5sum takes over `files` (one process, all files as arguments).
double md5sum_seconds(const QStringList& files)
{
    QProcess md5sum;
    md5sum.setStandardOutputFile(QProcess::nullDevice());
    QElapsedTimer timer;
    timer.start();
    md5sum.start(QStringLiteral("md5sum"), files);
    md5sum.waitForFinished(-1);
    return static_cast<double>(timer.nsecsElapsed()) / 1e9;
}

// CPU seconds of this process, every thread (the scan's hashing helpers included).
double process_cpu_seconds()
{
    struct timespec now;
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// CPU seconds (user + system) of the child processes that have ended so far.
double children_cpu_seconds()
{
    struct rusage usage;
    ::getrusage(RUSAGE_CHILDREN, &usage);
    const auto seconds = [](const struct timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

QMap<QString, QString> synthetic_tree(int entries, quint32 seed)
{
    QMap<QString, QString> tree;
    for (int i = 0; i < entries; ++i)
        tree.insert(QStringLiteral("background/d%1/image_%2.png").arg(i % 16).arg(i),
            context_monitor_t::compute_hash(QByteArray::number(seed) + QByteArray::number(i)));
    return tree;
}

// ------------------------------------------------------------------------------------------------

void BM_CumulativeHash(benchmark::State& state)
{
    const int entries = static_cast<int>(state.range(0));
    const QString root = image_root(entries);
    context_monitor_t monitor(QStringLiteral("BENCH"), root);
    monitor.start_watcher();
    if (monitor.getFileSync().size() != entries) {
        state.SkipWithError("the image root did not scan completely");
        return;
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(monitor.calculate_cumulative_hash());
    state.counters["entries"] = entries;
    state.SetItemsProcessed(state.iterations() * entries);
    monitor.stop_watcher();
}
BENCHMARK(BM_CumulativeHash)->Arg(10000)->Unit(benchmark::kMillisecond);

void BM_TreeDiff(benchmark::State& state)
{
    const int entries = static_cast<int>(state.range(0));
    const QMap<QString, QString> old_tree = synthetic_tree(entries, 1);
    QMap<QString, QString> new_tree = old_tree;
    const QStringList keys = old_tree.keys();
    // About 5 % each of renames, copies, content changes, removals and additions.
    const int share = entries / 20;
    for (int i = 0; i < share; ++i) {
        new_tree.insert(QStringLiteral("moved/%1.png").arg(i), new_tree.take(keys.at(i)));
        new_tree.insert(QStringLiteral("copies/%1.png").arg(i), old_tree.value(keys.at(share + i)));
        new_tree.insert(keys.at(2 * share + i), QStringLiteral("%1").arg(i, 32, 16, QChar('f')));
        new_tree.remove(keys.at(3 * share + i));
        new_tree.insert(
            QStringLiteral("fresh/%1.png").arg(i), QStringLiteral("%1").arg(i, 32, 16, QChar('e')));
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(
            context_monitor_t::calculate_diff_json_objects(old_tree, new_tree));
    state.counters["entries"] = entries;
    state.SetItemsProcessed(state.iterations() * entries);
}
BENCHMARK(BM_TreeDiff)->Arg(10000)->Unit(benchmark::kMillisecond);

void BM_TreeDiffIdentical(benchmark::State& state)
{
    const QMap<QString, QString> tree = synthetic_tree(static_cast<int>(state.range(0)), 1);
    for (auto _ : state)
        benchmark::DoNotOptimize(context_monitor_t::calculate_diff_json_objects(tree, tree));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_TreeDiffIdentical)->Arg(10000)->Unit(benchmark::kMillisecond);

// Time is the monitor's; md5sum's time on the same file is measured in every iteration too.
void BM_FileHashVsMd5sum(benchmark::State& state)
{
    const qint64 size = state.range(0) * 1024 * 1024;
    const QString path = big_file(size);
    if (path.isEmpty()) {
        state.SkipWithError("cannot write the test file");
        return;
    }
    warm_up({ path });
    double ours_total = 0;
    double md5sum_total = 0;
    for (auto _ : state) {
        QElapsedTimer timer;
        timer.start();
        benchmark::DoNotOptimize(context_monitor_t::compute_file_hash(path));
        const double ours = static_cast<double>(timer.nsecsElapsed()) / 1e9;
        state.SetIterationTime(ours);
        ours_total += ours;
        md5sum_total += md5sum_seconds({ path });
    }
    const double mb = static_cast<double>(size) / (1024.0 * 1024.0);
    const double n = static_cast<double>(state.iterations());
    state.counters["MB"] = mb;
    state.counters["ours_MBps"] = mb * n / ours_total;
    state.counters["md5sum_MBps"] = mb * n / md5sum_total;
    state.counters["ratio"] = md5sum_total / ours_total;
    state.SetBytesProcessed(state.iterations() * size);
}
BENCHMARK(BM_FileHashVsMd5sum)
    ->Arg(200)
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);

// The first scan: validation, hashing and watching of every image, then the cumulative hash.
// Besides the wall-clock ratio, the CPU time of both sides (the scan's helper threads included)
// gives a ratio that the machine's load does not move: md5sum's CPU over ours is the speed ratio
// the scan would reach on one idle core.
void BM_InitialScanVsMd5sum(benchmark::State& state)
{
    const int count = static_cast<int>(state.range(0));
    const QString root = image_root(count);
    qint64 total_bytes = 0;
    const QStringList files = files_below(root, &total_bytes);
    warm_up(files);
    double ours_total = 0;
    double ours_cpu_total = 0;
    double md5sum_total = 0;
    double md5sum_cpu_total = 0;
    for (auto _ : state) {
        context_monitor_t monitor(QStringLiteral("BENCH"), root);
        QElapsedTimer timer;
        const double cpu_before = process_cpu_seconds();
        timer.start();
        monitor.start_watcher();
        const double ours = static_cast<double>(timer.nsecsElapsed()) / 1e9;
        ours_cpu_total += process_cpu_seconds() - cpu_before;
        state.SetIterationTime(ours);
        ours_total += ours;
        if (monitor.getFileSync().size() != count) {
            state.SkipWithError("the image root did not scan completely");
            return;
        }
        monitor.stop_watcher();
        const double children_before = children_cpu_seconds();
        md5sum_total += md5sum_seconds(files);
        md5sum_cpu_total += children_cpu_seconds() - children_before;
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["files"] = count;
    state.counters["MB"] = static_cast<double>(total_bytes) / (1024.0 * 1024.0);
    state.counters["md5sum_ms"] = md5sum_total * 1000.0 / n;
    state.counters["ratio"] = md5sum_total / ours_total;
    state.counters["ours_cpu_ms"] = ours_cpu_total * 1000.0 / n;
    state.counters["md5sum_cpu_ms"] = md5sum_cpu_total * 1000.0 / n;
    state.counters["cpu_ratio"] = md5sum_cpu_total / ours_cpu_total;
    state.SetBytesProcessed(state.iterations() * total_bytes);
}
BENCHMARK(BM_InitialScanVsMd5sum)
    ->Arg(5000)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

// Stopping the monitor after the first scan of 5 000 images: every watch is given up.
void BM_StopWatcher(benchmark::State& state)
{
    const int count = static_cast<int>(state.range(0));
    const QString root = image_root(count);
    double cpu_total = 0;
    for (auto _ : state) {
        context_monitor_t monitor(QStringLiteral("BENCH"), root);
        monitor.start_watcher();
        if (monitor.getFileList().size() != count) {
            state.SkipWithError("the image root was not watched completely");
            return;
        }
        QElapsedTimer timer;
        const double cpu_before = process_cpu_seconds();
        timer.start();
        monitor.stop_watcher();
        state.SetIterationTime(static_cast<double>(timer.nsecsElapsed()) / 1e9);
        cpu_total += process_cpu_seconds() - cpu_before;
    }
    state.counters["files"] = count;
    state.counters["cpu_ms"] = cpu_total * 1000.0 / static_cast<double>(state.iterations());
}
BENCHMARK(BM_StopWatcher)->Arg(5000)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

// One image changes among the 5 000; the debounced batch for its directory is processed (without
// waiting for the timer): listing and validating the folder, hashing what changed, the diff and
// the notification. The bytes that the rescan read for hashing are reported as a counter.
void BM_RescanAfterOneChange(benchmark::State& state)
{
    const int count = static_cast<int>(state.range(0));
    const QString root = image_root(count);
    const QString background = root + QStringLiteral("background/");
    const QString changed = background + QStringLiteral("image_00000.png");
    const QByteArray original = [&] {
        QFile f(changed);
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    }();
    qint64 total_bytes = 0;
    const QStringList files = files_below(background, &total_bytes);

    context_monitor_t monitor(QStringLiteral("BENCH"), root);
    monitor.start_watcher();
    quint64 hashed = 0;
    quint32 seed = 1000000;
    for (auto _ : state) {
        state.PauseTiming();
        {
            QFile f(changed);
            if (f.open(QIODevice::WriteOnly | QIODevice::Truncate))
                f.write(test_support::make_background_png(++seed));
        }
        const quint64 before = monitor.get_bytes_hashed();
        state.ResumeTiming();
        monitor.on_directory_changed(background);
        monitor.on_timeout_debounced();
        state.PauseTiming();
        hashed += monitor.get_bytes_hashed() - before;
        emit monitor.debounce_timer_stop();
        state.ResumeTiming();
    }
    monitor.stop_watcher();
    {
        // The images are shared with other roots through hard links: put the original back.
        QFile f(changed);
        if (f.open(QIODevice::WriteOnly | QIODevice::Truncate))
            f.write(original);
    }
    state.counters["files_in_dir"] = files.size();
    state.counters["MB_in_dir"] = static_cast<double>(total_bytes) / (1024.0 * 1024.0);
    state.counters["bytes_hashed"]
        = static_cast<double>(hashed) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_RescanAfterOneChange)->Arg(5000)->Iterations(5)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    // A log facility with no console and no file: the monitor's trace lines cost what they cost
    // in production, without flooding the terminal.
    utility::logs::classlogs_settings_t settings;
    settings.console = false;
    utility::logs::classlogs::createInstance(settings);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    utility::logs::classlogs::destroyInstance();
    return 0;
}
