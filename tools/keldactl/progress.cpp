#include "progress.h"

#include "output.h"

#include <chrono>

namespace keldactl {

Progress::Progress(const std::wstring& what) {
  Murmur(what + L" ");
  thread_ = std::thread([this] { Run(); });
}

Progress::~Progress() {
  {
    const std::lock_guard lock(mutex_);
    end_ = true;
  }
  ended_.notify_one();
  thread_.join();
  Murmur(L"\n");
}

void Progress::Run() {
  std::unique_lock lock(mutex_);
  while (!ended_.wait_for(lock, std::chrono::seconds(1), [this] { return end_; }))
    Murmur(L".");
}

}  // namespace keldactl
