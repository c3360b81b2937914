#include "platforms/vdir/VdirParallel.h"

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

namespace vesp::vdir {

void runOnEveryCore(unsigned threads, std::size_t count, std::size_t perThread,
                    const std::function<void(std::size_t)>& work) {
  std::atomic<std::size_t> next{0};
  auto some = [&] {
    for (std::size_t at; (at = next++) < count;) work(at);
  };
  unsigned workers = static_cast<unsigned>(std::min<std::size_t>(threads, (count + perThread - 1) / perThread));
  std::vector<std::thread> pool;
  for (unsigned i = 1; i < workers; ++i) pool.emplace_back(some);
  some();
  for (auto& thread : pool) thread.join();
}

}  // namespace vesp::vdir
