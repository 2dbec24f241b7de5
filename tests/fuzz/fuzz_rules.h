// What a fuzz target does when one of its rules breaks: it names the rule on
// stderr and aborts, so that libFuzzer keeps the input that broke it.
#pragma once

#include <errno.h>  // program_invocation_short_name

#include <cstdio>
#include <cstdlib>
#include <string>

namespace pelorin::fuzz {

[[noreturn]] inline void fail(const std::string &what) {
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, what.c_str());
    std::abort();
}

// The rule's text is made into a string only when the rule breaks.
template <typename Text>
inline void require(bool holds, const Text &what) {
    if (!holds) fail(what);
}

}  // namespace pelorin::fuzz
