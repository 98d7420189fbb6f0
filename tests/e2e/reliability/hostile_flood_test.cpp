// One client floods the real server program with 1000 list requests a second for ten seconds
// (10 000 in all, over the loopback broker) while another user pulls files with ctxsync and asks
// for the list twice a second. The other user must still be served (the pull completes and
// verifies, every list request is answered), the server must stay up and answer promptly once the
// flood ends, and nothing in the tree may change. The figures (requests answered per second,
// the other client's answer times during the flood and, for comparison, before it) are printed
// for docs/reliability.md, where they decide whether a per-client limit is needed.

#include "reliability_env_t.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>

#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>

using reliability::fixture_image;
using reliability::md5_hex;
using reliability::read_file;
using reliability::snapshot;
using reliability::snapshot_t;
using reliability::wait_until;

namespace {

constexpr int kRate = 1000; // requests per second
constexpr int kSeconds = 10;
constexpr int kFiles = 6; // 1 MiB images, three chunks each, for the other user's pull

class hostile_flood : public reliability::reliability_test {
protected:
    void SetUp() override
    {
        reliability_test::SetUp();
        ASSERT_TRUE(start_broker()) << broker_.log().toStdString();
        for (int i = 0; i < kFiles; ++i)
            put_image(
                QStringLiteral("background/bg%1.png").arg(i), fixture_image("padded_1048576.png"));
        // The production console level: the flood is measured, not the logging of it.
        ASSERT_TRUE(start_server(4)) << output().toStdString();
    }
};

// Answers of `type` addressed to `client` alone (broadcasts left out), from position `from` on.
int count_type(const rr_test::client_t& client, const QString& type, int from = 0)
{
    int count = 0;
    for (int i = from; i < client.responses.size(); ++i) {
        const rr_test::response_t& response = client.responses.at(i);
        count += response.type == type && !response.broadcast ? 1 : 0;
    }
    return count;
}

} // namespace

TEST_F(hostile_flood, AThousandRequestsASecondFromOneClientLeaveAnotherClientServed)
{
    auto flooder = client(QStringLiteral("flooder"));
    auto victim = client(QStringLiteral("victim"));
    bool ok = false;
    const QJsonObject before = server_list(*victim, &ok);
    ASSERT_TRUE(ok);
    ASSERT_EQ(before.size(), kFiles);
    const snapshot_t before_root = snapshot(root());

    // The other user's list answer time without a flood, for comparison: 20 requests, one at a
    // time, 100 ms apart.
    QList<qint64> quiet_latencies;
    for (int i = 0; i < 20; ++i) {
        QElapsedTimer probe;
        probe.start();
        ASSERT_EQ(server_list(*victim, &ok), before);
        ASSERT_TRUE(ok);
        quiet_latencies.append(probe.elapsed());
        rr_test::settle(100);
    }
    std::sort(quiet_latencies.begin(), quiet_latencies.end());

    // The same pull without a flood, for comparison.
    test_support::temp_tree_t quiet;
    QElapsedTimer quiet_time;
    quiet_time.start();
    ASSERT_EQ(ctxsync(QStringLiteral("puller"), { "pull", quiet.root() }).code, 0);
    const qint64 quiet_ms = quiet_time.elapsed();

    test_support::temp_tree_t local;
    reliability::ctxsync_process_t pull;
    bool pull_started = false;
    QElapsedTimer pull_time;
    qint64 pull_ms = -1; // measured when the process ends, during the flood or after it

    // The other user's list requests: one every 500 ms, each timed until its answer.
    struct probe_t {
        qint64 sent_ms = 0;
        int from = 0;
        qint64 answered_ms = -1;
    };
    QList<probe_t> probes;

    QElapsedTimer clock;
    clock.start();
    int sent = 0;
    const int total = kRate * kSeconds;
    while (sent < total) {
        // Catch-up pacing: by t ms, t requests have gone (bounded by the total).
        const int due = int(std::min<qint64>(total, clock.elapsed() * kRate / 1000));
        for (; sent < due; ++sent)
            flooder->service()->send_request(QStringLiteral("ctx_request"), QJsonObject());
        if (!pull_started && clock.elapsed() >= 1000) {
            ASSERT_TRUE(pull.start(
                ctxsync_arguments(QStringLiteral("puller"), { "pull", local.root() }, 10)));
            pull_time.start();
            pull_started = true;
        }
        if (clock.elapsed() >= 500 * (qint64(probes.size()) + 1)) {
            probes.append({ clock.elapsed(), int(victim->responses.size()), -1 });
            victim->service()->send_request(QStringLiteral("ctx_request"), QJsonObject());
        }
        // Events of the test's own connections (and the server's pipe) are served between sends.
        QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
        output();
        if (pull_started && pull_ms < 0 && !pull.is_running())
            pull_ms = pull_time.elapsed();
        for (probe_t& probe : probes) {
            if (probe.answered_ms < 0
                && count_type(*victim, QStringLiteral("ctx_list"), probe.from) > 0) {
                probe.answered_ms = clock.elapsed();
            }
        }
    }
    const qint64 flood_ms = clock.elapsed();

    // The pull completes and verifies every file, flood or not.
    const reliability::run_t pulled = pull.finish(120000);
    if (pull_ms < 0)
        pull_ms = pull_time.elapsed();
    const bool pull_within_flood = pull_ms + 1000 < flood_ms;
    EXPECT_EQ(pulled.code, 0) << pulled.err.toStdString();
    // Served while the flood lasted, not only once it was over.
    EXPECT_TRUE(pull_within_flood) << "the pull took " << pull_ms << " ms";
    EXPECT_EQ(snapshot(local.root()).size(), kFiles);
    for (const QString& md5 : snapshot(local.root()))
        EXPECT_EQ(md5, md5_hex(read_file(fixture_image("padded_1048576.png"))));

    // Every one of the other user's requests is answered.
    EXPECT_TRUE(wait_until(
        [&] {
            bool all = true;
            for (probe_t& probe : probes) {
                if (probe.answered_ms < 0
                    && count_type(*victim, QStringLiteral("ctx_list"), probe.from) > 0)
                    probe.answered_ms = clock.elapsed();
                all = all && probe.answered_ms >= 0;
            }
            return all;
        },
        60000));
    QList<qint64> latencies;
    for (const probe_t& probe : probes) {
        if (probe.answered_ms >= 0)
            latencies.append(probe.answered_ms - probe.sent_ms);
    }
    std::sort(latencies.begin(), latencies.end());

    // The flood drains: the time of the last answer to the flooder (a second without one ends
    // the wait).
    int answered = count_type(*flooder, QStringLiteral("ctx_list"));
    qint64 drained_ms = clock.elapsed();
    QElapsedTimer silence;
    silence.start();
    while (answered < total && silence.elapsed() < 1000) {
        rr_test::settle(20);
        const int now = count_type(*flooder, QStringLiteral("ctx_list"));
        if (now != answered) {
            answered = now;
            drained_ms = clock.elapsed();
            silence.restart();
        }
    }

    // Afterwards the server answers at once and nothing changed.
    EXPECT_TRUE(server_running());
    QElapsedTimer after;
    after.start();
    EXPECT_EQ(server_list(*victim, &ok, 5000), before);
    EXPECT_TRUE(ok);
    const qint64 after_ms = after.elapsed();
    EXPECT_LT(after_ms, 2000);
    EXPECT_EQ(snapshot(root()), before_root);

    std::cout << "[ figures  ] flood: " << sent << " requests sent in " << flood_ms << " ms, "
              << answered << " answered by " << drained_ms << " ms ("
              << (drained_ms > 0 ? answered * 1000 / drained_ms : 0) << " answers/s)\n"
              << "[ figures  ] other client: " << probes.size() << " list requests, answer time "
              << "median " << (latencies.isEmpty() ? -1 : latencies.at(latencies.size() / 2))
              << " ms, max " << (latencies.isEmpty() ? -1 : latencies.last())
              << " ms (without the flood: median " << quiet_latencies.at(quiet_latencies.size() / 2)
              << " ms, max " << quiet_latencies.last() << " ms); pull of " << kFiles
              << " x 1 MiB in " << pull_ms << " ms (exit " << pulled.code << "; without the flood "
              << quiet_ms << " ms"
              << (pull_within_flood ? ", ended during the flood" : ", ended after the flood")
              << ")\n"
              << "[ figures  ] list answer after the flood: " << after_ms << " ms\n";
    RecordProperty("answered", answered);
    // The flood was really handled, not dropped on the way.
    EXPECT_GT(answered, total / 2);
    EXPECT_EQ(int(latencies.size()), int(probes.size()));
}
