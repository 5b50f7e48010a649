#pragma once

// The allocator of Tavelo's executables. Linking the `tavelo_allocator`
// object library into an executable makes mimalloc serve every malloc of the
// process (Qt's included) and sets its options before main runs.

#include <string>

namespace tavelo::allocator {

// True when a block from malloc comes from mimalloc's heap: the executable
// was linked with the allocator and nothing interposed another one.
bool servesMalloc();

// "mimalloc 2.0.9, large OS pages" and the like, for logs and benchmark
// reports; "system malloc" when mimalloc is not in charge.
std::string describe();

} // namespace tavelo::allocator
