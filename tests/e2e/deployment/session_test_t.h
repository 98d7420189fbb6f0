// One user's session through a broker topology, end to end: the real context_sync_server on its
// own context root and real ctxsync processes, each connected where the topology puts it (for a
// bridge: the server on the device broker and the clients on the cloud broker, below another topic
// base; for a cluster: the server and each client on a node of its own). The session pushes,
// lists, pulls byte for byte, renames, removes, replaces and syncs, and watches with mosquitto_sub
// what the broker delivers of the server's retained status and Will and of a client's presence and
// Will. What a topology cannot deliver is an expectation of the case, so that every known limit is
// asserted too.
//
// Base of the broker matrix tests; used from the test's thread.
#pragma once

#include "deployment_support.h"
#include "installation_t.h"

#include "common/temp_tree_t.h"

#include <gtest/gtest.h>

#include <memory>

namespace deployment {

struct session_t {
    endpoint_t server; // where the server connects
    endpoint_t alice; // the client that changes the tree
    endpoint_t bob; // the client that lists and pulls, and a late watcher of the status
    QString alice_id = QStringLiteral("alice.laptop");
    QString bob_id = QStringLiteral("bob-phone");
    // Whether a subscriber on bob's side that comes after the server's status receives the
    // retained copy, for the exact topic and for a filter with "+".
    bool late_status = true;
    bool late_status_wildcard = true;
};

class session_test_t : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // The whole session; fails the test where the topology does not do what it should.
    void run_session(const session_t& session);

    // Whether a subscriber that connects to `at` now receives the retained status of the server
    // (`filter`: the exact status topic or one with "+"): decided without waiting for a time-out,
    // by a probe message that the same subscriber receives after anything retained.
    bool late_subscriber_gets_status(const endpoint_t& at, const QString& filter);

    test_support::temp_tree_t dirs_;
    std::unique_ptr<installation_t> installation_;
    // The sizes of the session's files: one of two whole chunks (messages of ~680 KB), one small.
    static constexpr qsizetype kLargeSize = 1024000;
};

} // namespace deployment
