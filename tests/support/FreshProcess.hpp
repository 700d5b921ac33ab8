// Tests of state that a process can set only once run in processes of their own.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>

// Runs the statement in a new process, in which nothing has happened yet, and fails
// when an expectation fails there. State made before the macro is not seen.
#define EXPECT_PASSES_IN_FRESH_PROCESS(statement)                                                  \
    do {                                                                                           \
        GTEST_FLAG_SET(death_test_style, "threadsafe");                                            \
        EXPECT_EXIT(                                                                               \
            {                                                                                      \
                statement;                                                                         \
                std::_Exit(::testing::Test::HasFailure() ? 1 : 0);                                 \
            },                                                                                     \
            ::testing::ExitedWithCode(0), "");                                                     \
    } while (false)
