// Work spread over the cores: the scanner's stat and parse steps, and a query's series.
#pragma once

#include <cstddef>
#include <functional>

namespace vesp::vdir {

// Runs work(0) ... work(count - 1) on up to `threads` threads (this one included), each taking
// the next index; a thread is started for every `perThread` items at most.
void runOnEveryCore(unsigned threads, std::size_t count, std::size_t perThread,
                    const std::function<void(std::size_t)>& work);

}  // namespace vesp::vdir
