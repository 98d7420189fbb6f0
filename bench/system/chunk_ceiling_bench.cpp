// The protocol ceiling of a transfer: what one 512000-byte chunk costs when nothing but the work
// the chunk format demands is done, measured on the files that the system benchmark moves.
//
// For every file named on the command line as LABEL=PATH (after the Google Benchmark flags), two
// benchmarks run on up to 16 chunks taken evenly across the file:
//   encode/LABEL  level-9 qCompress + MD5 (hex) + Base64, what a sender must do per chunk;
//   decode/LABEL  Base64 decode + inflate + MD5 (hex), what a receiver must do per chunk. The
//                 Base64 text is taken as the receiver holds it (UTF-16, out of the JSON) and
//                 decoded by the fastest decoder we have, the chunk codec's, so that the
//                 ceiling does not flatter the receiving side.
// Real time is reported, so that the figures carry the same machine load as the transfers they
// are compared with. bench/run turns them into throughput ceilings:
//   download: 512000 / (encode + pacing interval), upload: 512000 / (encode + decode).
#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QFile>
#include <QString>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

constexpr qint64 CHUNK = 512000;
constexpr qint64 SAMPLES = 16;

// Chunks spread over the whole file, so that a file whose content drifts is sampled fairly.
std::vector<QByteArray> sample_chunks(const QString& path)
{
    std::vector<QByteArray> chunks;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return chunks;
    const qint64 count = (file.size() + CHUNK - 1) / CHUNK;
    const qint64 step = std::max<qint64>(1, count / SAMPLES);
    for (qint64 index = 0; index < count && qint64(chunks.size()) < SAMPLES; index += step) {
        if (!file.seek(index * CHUNK))
            break;
        QByteArray chunk = file.read(CHUNK);
        if (chunk.isEmpty())
            break;
        chunks.push_back(std::move(chunk));
    }
    return chunks;
}

void encode(benchmark::State& state, const std::vector<QByteArray>& chunks)
{
    std::size_t next = 0;
    qint64 bytes = 0;
    for (auto _ : state) {
        const QByteArray& raw = chunks[next++ % chunks.size()];
        QByteArray base64 = qCompress(raw, 9).toBase64();
        QByteArray hash = QCryptographicHash::hash(raw, QCryptographicHash::Md5).toHex();
        benchmark::DoNotOptimize(base64);
        benchmark::DoNotOptimize(hash);
        bytes += raw.size();
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(bytes);
}

void decode(benchmark::State& state, const std::vector<QString>& encoded)
{
    using context_sync_engine::chunk_codec_t;
    std::size_t next = 0;
    qint64 bytes = 0;
    for (auto _ : state) {
        const QByteArray raw
            = qUncompress(chunk_codec_t::decode_base64(encoded[next++ % encoded.size()]));
        QByteArray hash = QCryptographicHash::hash(raw, QCryptographicHash::Md5).toHex();
        benchmark::DoNotOptimize(hash);
        bytes += raw.size();
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(bytes);
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    // Kept alive until the runs are over: the registered lambdas refer to them.
    std::vector<std::vector<QByteArray>> raw_sets;
    std::vector<std::vector<QString>> encoded_sets;
    raw_sets.reserve(std::size_t(argc));
    encoded_sets.reserve(std::size_t(argc));
    for (int i = 1; i < argc; ++i) {
        const QString argument = QString::fromLocal8Bit(argv[i]);
        const qsizetype equals = argument.indexOf(QLatin1Char('='));
        if (equals <= 0) {
            std::fprintf(stderr, "chunk_ceiling_bench: expected LABEL=PATH, got %s\n", argv[i]);
            return 2;
        }
        const std::string label = argument.left(equals).toStdString();
        raw_sets.push_back(sample_chunks(argument.mid(equals + 1)));
        if (raw_sets.back().empty()) {
            std::fprintf(stderr, "chunk_ceiling_bench: cannot read %s\n", argv[i]);
            return 1;
        }
        std::vector<QString> encoded;
        for (const QByteArray& raw : raw_sets.back())
            encoded.push_back(QString::fromLatin1(qCompress(raw, 9).toBase64()));
        encoded_sets.push_back(std::move(encoded));
        const auto& raw = raw_sets.back();
        const auto& coded = encoded_sets.back();
        benchmark::RegisterBenchmark(
            ("encode/" + label).c_str(), [&raw](benchmark::State& s) { encode(s, raw); })
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(
            ("decode/" + label).c_str(), [&coded](benchmark::State& s) { decode(s, coded); })
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
