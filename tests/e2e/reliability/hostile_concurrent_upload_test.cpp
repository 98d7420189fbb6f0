// Two clients upload the same path at once, chunk by chunk in turn, through the real broker to the
// real server program. Each client's upload has a reception of its own in the server: every chunk
// is acknowledged to its sender, the first upload to complete is written byte for byte, the second
// then replaces it byte for byte, and nothing of one is ever mixed into the other.

#include "reliability_env_t.h"

#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"

#include <gtest/gtest.h>

using context_sync_engine::chunk_codec_t;
using reliability::fixture_image;
using reliability::md5_hex;
using reliability::read_file;
using reliability::snapshot;

namespace {

const QString kPath = QStringLiteral("background/same.png");

class hostile_concurrent_upload : public reliability::reliability_test {
protected:
    void SetUp() override
    {
        reliability_test::SetUp();
        ASSERT_TRUE(start_broker()) << broker_.log().toStdString();
        ASSERT_TRUE(start_server()) << output().toStdString();
        alice_ = client(QStringLiteral("alice"));
        bob_ = client(QStringLiteral("bob"));
        ASSERT_TRUE(wait_status(*alice_, QStringLiteral("online"))) << output().toStdString();
    }

    // Sends chunk `index` of `bytes` as `client` and waits for its acknowledgement.
    void upload_chunk(rr_test::client_t& client, const QByteArray& bytes, int index)
    {
        const int from = int(client.responses.size());
        send_chunk(client, chunk_of(kPath, bytes, index));
        const int ack = wait_ack(client, kPath, index, from);
        ASSERT_GE(ack, 0) << output().toStdString();
        EXPECT_EQ(client.responses.at(ack).payload, chunk_codec_t::build_ack(kPath, index));
    }

    std::unique_ptr<rr_test::client_t> alice_;
    std::unique_ptr<rr_test::client_t> bob_;
};

} // namespace

TEST_F(hostile_concurrent_upload, TwoUploadsOfOnePathInTurnNeverMixAndBothArriveWhole)
{
    // Two valid backgrounds of three chunks each that differ in one byte of the last chunk (in
    // the padding; the server checks a background by its header): a mix of the two would be a
    // third file, listed with another MD5.
    const QByteArray alice_image = read_file(fixture_image("padded_1048576.png"));
    QByteArray bob_image = alice_image;
    const qsizetype changed = bob_image.size() - 100;
    bob_image[changed] = char(bob_image.at(changed) ^ 0x5a);
    ASSERT_EQ(chunk_codec_t::chunk_count(alice_image.size()), 3);
    ASSERT_NE(md5_hex(alice_image), md5_hex(bob_image));

    for (int index = 0; index < 2; ++index) {
        upload_chunk(*alice_, alice_image, index);
        upload_chunk(*bob_, bob_image, index);
    }
    // Alice's last chunk completes her upload: the file is hers, byte for byte. Bob's last
    // chunk, in the one shared reception of old, would have been taken as hers.
    upload_chunk(*alice_, alice_image, 2);
    const QString written = QStringLiteral("Successfull file received: %1").arg(root() + kPath);
    EXPECT_TRUE(wait_logged(written, 4)) << output().toStdString();
    EXPECT_EQ(read_file(root() + kPath), alice_image);

    // Bob's completes next and replaces it, byte for byte.
    upload_chunk(*bob_, bob_image, 2);
    EXPECT_TRUE(wait_list(*alice_, QJsonObject { { kPath, md5_hex(bob_image) } }))
        << output().toStdString();
    EXPECT_EQ(read_file(root() + kPath), bob_image);
    EXPECT_EQ(count_logged(written, 4), 2);
    EXPECT_EQ(count_fragment(QStringLiteral("Discarded")), 0);
    EXPECT_TRUE(snapshot(root() + QStringLiteral("TMP_file_receive")).isEmpty());

    // Nothing was refused, discarded or found corrupt on the way.
    for (const QString& fragment : { QStringLiteral("Refused"), QStringLiteral("Integrity error"),
             QStringLiteral("Chunk reception timeout") })
        EXPECT_EQ(count_fragment(fragment), 0) << fragment.toStdString();
}
