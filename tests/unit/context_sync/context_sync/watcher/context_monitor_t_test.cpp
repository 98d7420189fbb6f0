#include "context_sync/context_sync/watcher/context_monitor_t.h"

#include "common/log_capture_t.h"
#include "common/temp_tree_t.h"

#include <gtest/gtest.h>

using context_sync_engine::context_monitor_t;

TEST(context_monitor_t, AdjustPathDirectoryNormalisesDirectories)
{
    EXPECT_EQ(context_monitor_t::adjust_path_directory("/data/ctx"), "/data/ctx/");
    EXPECT_EQ(context_monitor_t::adjust_path_directory("/data/ctx/"), "/data/ctx/");
    EXPECT_EQ(context_monitor_t::adjust_path_directory("/data/ctx/./"), "/data/ctx/");
    EXPECT_EQ(context_monitor_t::adjust_path_directory("./ctx"), "ctx");
    EXPECT_EQ(context_monitor_t::adjust_path_directory("./"), "./");
}
