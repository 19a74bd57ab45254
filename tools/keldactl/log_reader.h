// Reads the provider's log: its lines, put together to calls. Pure: no Windows header, no I/O.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace keldactl {

// What the log tells about one call, or what stands between two calls.
struct LogRecord {
  enum class Kind {
    kCall,
    kLoad,  // a program loaded the provider; the lines are what it did then
    kOther  // lines outside of any call
  };
  Kind kind = Kind::kOther;
  // A call's entry without the prefix that all of them have ("SignHash"); the time of a load, as the log has it.
  std::string title;
  // The key's name, or its handle where the log does not tell the name. Empty for calls that have no key.
  std::string key;
  // What the call answered. Nothing when its end is missing or tells none.
  std::optional<std::uint32_t> status;
  // The line that tells why a call was refused.
  std::string reason;
  // A call's end is in the log.
  bool finished = false;
  // Everything between the first line and the last one.
  std::vector<std::string> lines;

  // Refused or failed. The end of a list is neither.
  bool Failed() const;
};

// Takes the log's text in pieces of any size, so that a log can be followed while it grows. Lines of programs that
// wrote at the same time are mixed in the log, and then the calls are what they look like.
class LogReader {
 public:
  // The records that this piece completes.
  std::vector<LogRecord> Feed(std::string_view text);
  // What is still open at the end of the log.
  std::vector<LogRecord> Finish();

 private:
  void TakeLine(std::string line);
  void TakeBanner();
  void TakeCallLine(std::string line);
  void TakeEnd(std::string_view rest);
  void Begin(LogRecord::Kind kind, std::string title);
  void End();
  void NoteKey(std::string_view line);

  std::string partial_;
  std::optional<LogRecord> open_;
  std::string entry_;                         // of the open call, as its lines spell it
  std::string handle_;                        // of the open call's key
  bool after_banner_ = false;                 // the next line tells whether the banner opened a call
  bool ended_ = false;                        // the open call's last line has been seen
  std::map<std::string, std::string> names_;  // of keys, by their handles
  std::vector<LogRecord> done_;
};

}  // namespace keldactl
