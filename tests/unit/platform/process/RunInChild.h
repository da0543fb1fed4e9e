#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

/// How a child process ended, and what it wrote to its standard error.
struct ChildResult {
    /// As waitpid(2) gives it.
    int status = 0;
    std::string errorOutput;

    /// Whether the child ended by returning `code`; if not, how it ended and what it wrote.
    testing::AssertionResult returned(int code) const;
    /// Whether the child was ended by `signal`; if not, how it ended and what it wrote.
    testing::AssertionResult killedBy(int signal) const;
};

/// Runs `body` in a fork of this process and waits for its end; for what changes a process for good. `body`'s
/// result is the exit code. A child that takes longer than 30 s is killed by SIGALRM. Failed EXPECTs do not
/// reach the parent: the body reports by its result.
ChildResult runInChild(const std::function<int()>& body);
