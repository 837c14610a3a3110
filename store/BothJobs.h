// How the store's long operations (sorting a chunk of records, dumping a tree) split their work
// in two without owning a thread: the caller gives a BothJobs that runs two jobs, at once where
// it can (the cache manager runs the second on its helper thread), and returns once both have
// ended, passing on what either threw. oneAfterTheOther is the one for callers without a thread
// to spare.
#pragma once

#include <functional>

namespace PBC {

using BothJobs = std::function<void(const std::function<void()>& first, const std::function<void()>& second)>;

inline void oneAfterTheOther(const std::function<void()>& first, const std::function<void()>& second) {
  first();
  second();
}

}  // namespace PBC
