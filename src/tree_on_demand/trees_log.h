// Logging and assertions of the tree builder: module "TREES  ", source "tree_on_demand".
// Trace messages (level 4 and above) are gated before their arguments are evaluated.
#pragma once

#include "common/am_assert.h"
#include "common/log.h"

inline constexpr const char* kTreesSourceFile = "tree_on_demand";

// Logs under "TREES  " from the calling function.
#define TREES_LOG(level, fmt, ...) TREES_LOG_IN(__func__, level, fmt __VA_OPT__(, ) __VA_ARGS__)

// Logs under "TREES  " naming `function` as the source function.
#define TREES_LOG_IN(function, level, fmt, ...)                                      \
    do {                                                                             \
        if ((level) < kLogLevelDebug || log_check_level(kLogModuleTrees, (level))) { \
            log_send(kLogModuleTrees, (level), kTreesSourceFile, __LINE__, function, \
                     fmt __VA_OPT__(, ) __VA_ARGS__);                                \
        }                                                                            \
    } while (0)

// True when trace messages of `level` are wanted for "TREES  ".
#define TREES_LOG_ENABLED(level) log_check_level(kLogModuleTrees, (level))

// Asserts under "TREES  " from the calling function.
#define TREES_ASSERT(cond, fmt, ...) \
    AM_ASSERT_AT(kLogModuleTrees, kTreesSourceFile, __func__, cond, fmt __VA_OPT__(, ) __VA_ARGS__)

// Asserts under "TREES  " naming `function` as the source function.
#define TREES_ASSERT_IN(function, cond, fmt, ...) \
    AM_ASSERT_AT(kLogModuleTrees, kTreesSourceFile, function, cond, fmt __VA_OPT__(, ) __VA_ARGS__)
