// Shows on standard error that something is still going on.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace keldactl {

// Says what is being done, and a dot for each second that it takes, until it is destroyed.
class Progress {
 public:
  explicit Progress(const std::wstring& what);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress();

 private:
  void Run();

  std::mutex mutex_;
  std::condition_variable ended_;
  bool end_ = false;
  std::thread thread_;
};

}  // namespace keldactl
