// mimalloc for the whole process. Debian's shared mimalloc replaces malloc
// and free as soon as the executable links it, so there is nothing to
// install at run time; what is left is its options.
//
// Large OS pages: a cold load of a big calendar allocates tens of megabytes of
// short strings and vectors at once, and where every fresh 4 KiB page fault is
// expensive (virtual machines) most of the load would go into faulting. With
// the option on, mimalloc maps its segments with 2 MiB pages: real huge pages
// when the system reserved some, otherwise transparent huge pages requested
// with madvise, which works with the common "madvise" setting. (Newer
// mimalloc names the option "allow_large_os_pages" and keeps the old name as
// an alias.)
//
// Eager commit from a thread's first segment on: by default mimalloc commits
// the first segment of each new thread page by page and never with large
// pages, to keep short-lived threads small. The thread that decodes calendar
// rows during a load is such a thread and allocates most of the events, so it
// would fault in every 4 KiB page of its first segment one at a time.
//
// The options are set from a static initializer, which runs after mimalloc's
// own start-up (where it reads its MIMALLOC_* environment variables, which
// these settings override) and before main: every segment mapped from then
// on, Qt's start-up included, follows them.

#include "support/Allocator.h"

#include <mimalloc.h>

#include <cstdlib>
#include <cstring>

namespace tavelo::allocator {

namespace {

[[gnu::constructor]] void configure() {
    mi_option_enable(mi_option_large_os_pages);
    mi_option_set(mi_option_eager_commit_delay, 0);
}

} // namespace

bool servesMalloc() {
    void* block = std::malloc(64);
    if (!block) return false;
    std::memset(block, 0, 64);
    const bool fromMimalloc = mi_is_in_heap_region(block);
    std::free(block);
    return fromMimalloc;
}

std::string describe() {
    if (!servesMalloc()) return "system malloc";
    const int version = mi_version();
    std::string text = "mimalloc " + std::to_string(version / 100) + "." + std::to_string(version / 10 % 10) + "." +
                       std::to_string(version % 10);
    if (mi_option_is_enabled(mi_option_large_os_pages)) text += ", large OS pages";
    return text;
}

} // namespace tavelo::allocator
