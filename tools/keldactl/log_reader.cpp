#include "log_reader.h"

#include <algorithm>
#include <array>
#include <utility>

namespace keldactl {
namespace {

constexpr std::size_t kBannerLength = 66;
constexpr std::string_view kLoadMark = " LOG START - ";
constexpr std::string_view kEntryMark = " - Entry";
constexpr std::string_view kExitMark = " - Exit";
constexpr std::string_view kPrefix = "KELDAKSP";
// The one entry whose first and last line are its bare name.
constexpr std::string_view kBareEntry = "KELDAKSPPromptUser";
constexpr std::uint32_t kNoMoreItems = 0x8009002A;

bool IsBanner(std::string_view line) {
  return line.size() == kBannerLength && line.find_first_not_of('=') == std::string_view::npos;
}

// The time behind the line that marks a load.
std::optional<std::string> LoadTime(std::string_view line) {
  const std::size_t mark = line.find(kLoadMark);
  if (mark != kBannerLength || line.find_first_not_of('*') != mark) return std::nullopt;
  return std::string(line.substr(mark + kLoadMark.size()));
}

std::optional<std::string_view> EntryOf(std::string_view line) {
  if (line == kBareEntry) return line;
  if (!line.ends_with(kEntryMark)) return std::nullopt;
  return line.substr(0, line.size() - kEntryMark.size());
}

// The eight digits behind the last "0x", if the line ends in them.
std::optional<std::uint32_t> StatusAtEnd(std::string_view line) {
  constexpr std::size_t kLength = 10;
  if (line.size() < kLength || line.substr(line.size() - kLength, 2) != "0x") return std::nullopt;
  std::uint32_t value = 0;
  for (const char c : line.substr(line.size() - kLength + 2)) {
    const std::size_t digit = std::string_view("0123456789ABCDEF").find(c);
    if (digit == std::string_view::npos) return std::nullopt;
    value = value * 16 + static_cast<std::uint32_t>(digit);
  }
  return value;
}

// "pszKeyName : text": the text, when the line has that label.
std::optional<std::string_view> ValueOf(std::string_view line, std::string_view label) {
  if (!line.starts_with(label)) return std::nullopt;
  line.remove_prefix(label.size());
  const std::size_t colon = line.find_first_not_of(' ');
  if (colon == std::string_view::npos || line[colon] != ':') return std::nullopt;
  line.remove_prefix(colon + 1);
  if (line.starts_with(' ')) line.remove_prefix(1);
  return line;
}

// "NTE_FAIL: text", or a status's name alone.
bool NamesAStatus(std::string_view line) {
  constexpr std::array<std::string_view, 5> kFamilies = {"NTE_", "STATUS_", "SCARD_", "ERROR_", "CKR_"};
  if (std::none_of(kFamilies.begin(), kFamilies.end(), [&](std::string_view f) { return line.starts_with(f); })) {
    return false;
  }
  const std::size_t end = line.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_");
  return end == std::string_view::npos || line[end] == ':';
}

bool SpeaksOfFailure(std::string_view line) {
  return line.find("ailed") != std::string_view::npos || line.find("rror") != std::string_view::npos;
}

std::string Reason(const std::vector<std::string>& lines) {
  for (const auto tells : {NamesAStatus, SpeaksOfFailure}) {
    const auto found = std::find_if(lines.rbegin(), lines.rend(), tells);
    if (found != lines.rend()) return *found;
  }
  return {};
}

}  // namespace

bool LogRecord::Failed() const {
  if (kind != Kind::kCall) return false;
  if (!finished) return true;
  return status ? *status != 0 && *status != kNoMoreItems : !reason.empty();
}

std::vector<LogRecord> LogReader::Feed(std::string_view text) {
  partial_ += text;
  std::size_t begin = 0;
  for (std::size_t end = partial_.find('\n'); end != std::string::npos; end = partial_.find('\n', begin)) {
    std::string line = partial_.substr(begin, end - begin);
    if (line.ends_with('\r')) line.pop_back();
    TakeLine(std::move(line));
    begin = end + 1;
  }
  partial_.erase(0, begin);
  return std::exchange(done_, {});
}

std::vector<LogRecord> LogReader::Finish() {
  if (!partial_.empty()) TakeLine(std::exchange(partial_, {}));
  End();
  return std::exchange(done_, {});
}

void LogReader::TakeLine(std::string line) {
  if (std::optional<std::string> time = LoadTime(line)) {
    Begin(LogRecord::Kind::kLoad, *std::move(time));
    return;
  }
  if (IsBanner(line)) {
    TakeBanner();
    return;
  }
  if (std::exchange(after_banner_, false)) {
    if (const std::optional<std::string_view> entry = EntryOf(line)) {
      const bool prefixed = entry->starts_with(kPrefix);
      Begin(LogRecord::Kind::kCall, std::string(prefixed ? entry->substr(kPrefix.size()) : *entry));
      entry_ = *entry;
      return;
    }
  }
  if (open_ && open_->kind == LogRecord::Kind::kCall) {
    TakeCallLine(std::move(line));
    return;
  }
  if (line.empty()) return;
  if (!open_) Begin(LogRecord::Kind::kOther, {});
  open_->lines.push_back(std::move(line));
}

// Behind a call's last line the banner closes it. Any other may open one, and the next line tells: the log may begin,
// or a call may have been broken off, anywhere.
void LogReader::TakeBanner() {
  if (ended_) {
    End();
  } else {
    after_banner_ = true;
  }
}

void LogReader::TakeCallLine(std::string line) {
  const std::string_view text = line;
  if (text.starts_with(entry_)) {
    const std::string_view rest = text.substr(entry_.size());
    if (rest.starts_with(kExitMark) || (rest.empty() && entry_ == kBareEntry)) {
      TakeEnd(rest);
      return;
    }
  }
  NoteKey(text);
  open_->lines.push_back(std::move(line));
}

void LogReader::TakeEnd(std::string_view rest) {
  ended_ = true;
  open_->finished = true;
  open_->status = StatusAtEnd(rest);
  if (open_->status != 0u) open_->reason = Reason(open_->lines);
  if (open_->status == 0u && open_->title == "FreeKey") names_.erase(handle_);
}

// A key is named where it is opened or created, and that call also tells the handle that stands for it afterwards.
void LogReader::NoteKey(std::string_view line) {
  if (const auto name = ValueOf(line, "pszKeyName")) {
    open_->key = *name;
  } else if (const auto created = ValueOf(line, "Key handle")) {
    names_[std::string(*created)] = open_->key;
  } else if (const auto opened = ValueOf(line, "Key opened. Handle")) {
    names_[std::string(*opened)] = open_->key;
  } else if (const auto handle = ValueOf(line, "hKey")) {
    handle_ = *handle;
    const auto known = names_.find(handle_);
    open_->key = known == names_.end() || known->second.empty() ? handle_ : known->second;
  }
}

void LogReader::Begin(LogRecord::Kind kind, std::string title) {
  End();
  // Handles mean nothing to the next program.
  if (kind == LogRecord::Kind::kLoad) names_.clear();
  open_.emplace();
  open_->kind = kind;
  open_->title = std::move(title);
}

void LogReader::End() {
  if (open_) done_.push_back(*std::exchange(open_, std::nullopt));
  entry_.clear();
  handle_.clear();
  after_banner_ = false;
  ended_ = false;
}

}  // namespace keldactl
