// Benchmarks of the chunked transfer: chunks per second for building a chunk (read + MD5 + level-9
// compression + Base64 + JSON object) and for decoding one (Base64 + inflate + MD5 from the JSON
// object), on random and on text data, each next to the bare qCompress(9) + MD5 + Base64 (or
// fromBase64 + qUncompress + MD5) work on the same bytes in the same run; and the throughput of
// a 50 MB file moved back to back from a sender on its own thread to a receiver, with the default
// pacing.
//
// After the runs, a table gives each build/decode rate as a ratio to its bare counterpart
// (1.0 = no overhead beyond the unavoidable work; the goal is at least 0.9). Argument text:0 is
// random data, text:1 text.
#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"
#include "context_sync/context_sync/transfer_manager/file_receiver_t.h"
#include "context_sync/context_sync/transfer_manager/file_sender_t.h"

#include "platform/comunication/utility/json_reader_t.h"
#include "platform/comunication/utility/json_text_t.h"
#include "platform/logs/classlogs.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QThread>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>

using context_sync_engine::chunk_codec_t;
using context_sync_engine::file_receiver_t;
using context_sync_engine::file_sender_t;

namespace {

constexpr qsizetype CHUNK = chunk_codec_t::CHUNK_SIZE;
// Chunks in the source file that the build benchmarks read round and round.
constexpr int FILE_CHUNKS = 8;

enum data_kind_t { RANDOM = 0, TEXT = 1 };

QByteArray make_bytes(qsizetype size, data_kind_t kind)
{
    QByteArray data(size, Qt::Uninitialized);
    if (kind == RANDOM) {
        QRandomGenerator generator(42);
        generator.fillRange(reinterpret_cast<quint32*>(data.data()), size / 4);
        for (qsizetype i = size / 4 * 4; i < size; ++i)
            data[i] = char(generator.generate());
        return data;
    }
    static const QByteArray line
        = "The context root holds the backgrounds that every client shows, 640 x 284 pixels.\n";
    data.clear();
    data.reserve(size);
    for (int counter = 0; data.size() < size; ++counter)
        data += QByteArray::number(counter) + ": " + line;
    data.truncate(size);
    return data;
}

QTemporaryDir& work_dir()
{
    static QTemporaryDir dir;
    return dir;
}

QString source_file(data_kind_t kind)
{
    const QString path = work_dir().path()
        + (kind == RANDOM ? QStringLiteral("/random.bin") : QStringLiteral("/text.txt"));
    if (!QFile::exists(path)) {
        QFile file(path);
        if (file.open(QIODevice::WriteOnly))
            file.write(make_bytes(CHUNK * FILE_CHUNKS, kind));
    }
    return path;
}

const QByteArray& one_chunk(data_kind_t kind)
{
    static const QByteArray random = make_bytes(CHUNK, RANDOM);
    static const QByteArray text = make_bytes(CHUNK, TEXT);
    return kind == RANDOM ? random : text;
}

void set_chunk_counters(benchmark::State& state)
{
    state.SetLabel(state.range(0) == RANDOM ? "random" : "text");
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * CHUNK);
}

// The unavoidable work of a chunk: compress, hash, encode.
void BM_BareCompressMd5Base64(benchmark::State& state)
{
    const QByteArray& raw = one_chunk(data_kind_t(state.range(0)));
    for (auto _ : state) {
        QByteArray compressed = qCompress(raw, 9);
        QByteArray hash = QCryptographicHash::hash(raw, QCryptographicHash::Md5).toHex();
        QByteArray base64 = compressed.toBase64();
        benchmark::DoNotOptimize(hash);
        benchmark::DoNotOptimize(base64);
    }
    set_chunk_counters(state);
}

// What the sender does per chunk: read from the open file, then build the JSON object.
void BM_BuildChunk(benchmark::State& state)
{
    QFile file(source_file(data_kind_t(state.range(0))));
    if (!file.open(QIODevice::ReadOnly)) {
        state.SkipWithError("cannot open the source file");
        return;
    }
    QByteArray buffer;
    chunk_codec_t::header_t header;
    header.file = QStringLiteral("background/bench.bin");
    header.total_chunks = FILE_CHUNKS;
    for (auto _ : state) {
        if (file.atEnd())
            file.seek(0);
        chunk_codec_t::read_chunk(file, buffer);
        QJsonObject chunk = chunk_codec_t::build_chunk(header, buffer, 9);
        benchmark::DoNotOptimize(chunk);
        ++header.chunk_index;
    }
    set_chunk_counters(state);
}

// The unavoidable work of receiving a chunk: decode, decompress, hash.
void BM_BareBase64UncompressMd5(benchmark::State& state)
{
    const QByteArray& raw = one_chunk(data_kind_t(state.range(0)));
    const QByteArray base64 = qCompress(raw, 9).toBase64();
    for (auto _ : state) {
        QByteArray bytes = qUncompress(QByteArray::fromBase64(base64));
        QByteArray hash = QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex();
        benchmark::DoNotOptimize(hash);
    }
    set_chunk_counters(state);
}

// What the receiver does per chunk: read the fields, decode, check the hash.
void BM_DecodeChunk(benchmark::State& state)
{
    chunk_codec_t::header_t header;
    header.file = QStringLiteral("background/bench.bin");
    header.total_chunks = 1;
    const QJsonObject chunk
        = chunk_codec_t::build_chunk(header, one_chunk(data_kind_t(state.range(0))), 9);
    for (auto _ : state) {
        chunk_codec_t::decoded_t decoded = chunk_codec_t::decode_chunk(chunk);
        if (!decoded.valid)
            state.SkipWithError("chunk did not verify");
        benchmark::DoNotOptimize(decoded);
    }
    set_chunk_counters(state);
}

// Parsing the text of a chunk request as it arrives from the broker (the client's request
// envelope around the chunk object): Qt's parser (arg ours:0) against the rr layer's reader
// (ours:1), which takes the long Base64 string past Qt's parser.
void BM_ParseChunkRequest(benchmark::State& state)
{
    chunk_codec_t::header_t header;
    header.file = QStringLiteral("background/bench.bin");
    header.total_chunks = 1;
    const QJsonObject request { { QStringLiteral("type"), QStringLiteral("ctx_chunk") },
        { QStringLiteral("payload"),
            QJsonObject { { QStringLiteral("message"),
                chunk_codec_t::build_chunk(header, one_chunk(RANDOM), 9) } } } };
    const QByteArray text = comunication::utility::json_text_t::compact(request);
    const bool ours = state.range(0) != 0;
    for (auto _ : state) {
        QJsonParseError error {};
        QJsonDocument document = ours ? comunication::utility::json_reader_t::parse(text, &error)
                                      : QJsonDocument::fromJson(text, &error);
        if (error.error != QJsonParseError::NoError)
            state.SkipWithError("not parsed");
        benchmark::DoNotOptimize(document);
    }
    state.SetLabel(ours ? "json_reader_t" : "QJsonDocument");
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * text.size());
}

// A 50 MB file from a sender on its own thread to a receiver on this thread, acknowledgements
// included, with the default pacing of one sender (5 ms between chunks).
void BM_BackToBack50MB(benchmark::State& state)
{
    const data_kind_t kind = data_kind_t(state.range(0));
    constexpr qint64 size = 50 * 1000 * 1000;
    QTemporaryDir source;
    QTemporaryDir target;
    const QString name = QStringLiteral("big.bin");
    {
        QFile file(source.path() + "/" + name);
        if (!file.open(QIODevice::WriteOnly)) {
            state.SkipWithError("cannot write the source file");
            return;
        }
        const QByteArray block = make_bytes(10 * 1000 * 1000, kind);
        for (int i = 0; i < 5; ++i)
            file.write(block);
    }

    for (auto _ : state) {
        file_receiver_t receiver(
            target.path() + "/", QStringLiteral("TMP_file_receive"), QStringLiteral("server"));
        QThread thread;
        thread.start();
        auto* sender = new file_sender_t(QStringLiteral("bench"), source.path() + "/");
        sender->moveToThread(&thread);
        bool done = false;
        QObject::connect(sender, &file_sender_t::publish_chunk, &receiver,
            [&receiver](const QString& client, const QJsonObject& chunk) {
                receiver.processChunk(chunk, client);
            });
        QObject::connect(&receiver, &file_receiver_t::sendChunkAck, &receiver,
            [sender](const QString&, int, const QJsonObject& ack, const QString&) {
                QMetaObject::invokeMethod(
                    sender, "ackReceiver", Qt::QueuedConnection, Q_ARG(QJsonObject, ack));
            });
        QObject::connect(&receiver, &file_receiver_t::file_received, &receiver,
            [&done](const QString&) { done = true; });
        QMetaObject::invokeMethod(sender, "start", Qt::QueuedConnection,
            Q_ARG(QList<QString>, { source.path() + "/" + name }));
        QDeadlineTimer deadline(600000);
        while (!done && !deadline.hasExpired())
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
        QMetaObject::invokeMethod(sender, "stop", Qt::BlockingQueuedConnection);
        sender->deleteLater();
        thread.quit();
        thread.wait();
        if (!done)
            state.SkipWithError("transfer did not finish");
    }
    state.SetBytesProcessed(state.iterations() * size);
    state.SetLabel(kind == RANDOM ? "random" : "text");
}

BENCHMARK(BM_BareCompressMd5Base64)->Arg(RANDOM)->Arg(TEXT)->ArgName("text");
BENCHMARK(BM_BuildChunk)->Arg(RANDOM)->Arg(TEXT)->ArgName("text");
BENCHMARK(BM_BareBase64UncompressMd5)->Arg(RANDOM)->Arg(TEXT)->ArgName("text");
BENCHMARK(BM_DecodeChunk)->Arg(RANDOM)->Arg(TEXT)->ArgName("text");
BENCHMARK(BM_ParseChunkRequest)->Arg(0)->Arg(1)->ArgName("ours");
BENCHMARK(BM_BackToBack50MB)
    ->Arg(RANDOM)
    ->Arg(TEXT)
    ->ArgName("text")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(2);

// Console output as usual, plus the chunk rates kept for the ratio table.
class ratio_reporter_t : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& reports) override
    {
        ConsoleReporter::ReportRuns(reports);
        for (const Run& run : reports) {
            const auto it = run.counters.find("items_per_second");
            if (!run.error_occurred && it != run.counters.end())
                rates[run.benchmark_name()] = it->second.value;
        }
    }

    void print_ratios() const
    {
        std::printf("\nChunk rates as a ratio to the bare work on the same bytes (goal >= 0.9):\n");
        for (const char* kind : { "text:0", "text:1" }) {
            const std::string label = std::string(kind) == "text:0" ? "random" : "text";
            print_ratio("build  " + label, std::string("BM_BuildChunk/") + kind,
                std::string("BM_BareCompressMd5Base64/") + kind);
            print_ratio("decode " + label, std::string("BM_DecodeChunk/") + kind,
                std::string("BM_BareBase64UncompressMd5/") + kind);
        }
    }

private:
    void print_ratio(
        const std::string& label, const std::string& ours, const std::string& bare) const
    {
        const auto a = rates.find(ours);
        const auto b = rates.find(bare);
        if (a == rates.end() || b == rates.end() || b->second <= 0)
            return;
        std::printf("  %-14s %8.1f chunks/s vs %8.1f chunks/s  ratio %.3f\n", label.c_str(),
            a->second, b->second, a->second / b->second);
    }

    std::map<std::string, double> rates;
};

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    // The transfer logs every chunk at level 6; keep the console quiet.
    utility::logs::classlogs_settings_t settings;
    settings.console = false;
    utility::logs::classlogs::createInstance(settings);

    benchmark::Initialize(&argc, argv);
    ratio_reporter_t reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.print_ratios();
    benchmark::Shutdown();

    utility::logs::classlogs::destroyInstance();
    return 0;
}
