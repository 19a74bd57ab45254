#include "commands.h"
#include "handle.h"
#include "json.h"
#include "log_reader.h"
#include "log_settings.h"
#include "output.h"
#include "standard_output.h"
#include "status.h"
#include "terminal.h"
#include "text_rules.h"
#include "unicode.h"

#include <functional>

namespace keldactl {
namespace {

constexpr DWORD kFollowPause = 200;  // milliseconds

struct LogOptions {
  std::wstring action;
  std::optional<std::wstring> file;
  bool follow = false;
  bool nested = false;
  bool failures = false;
  bool raw = false;
  std::wstring colour = kColourAuto;
  bool json = false;
};

void RefuseOutsideOfShow(const LogOptions& options) {
  if (options.follow || options.nested || options.failures || options.raw || options.json ||
      options.colour != kColourAuto) {
    throw UsageError(L"--follow, --nested, --failures, --raw, --colour and --json go with \"log show\" only");
  }
}

void CheckWords(const LogOptions& options) {
  if (options.action == L"show") {
    if (options.json && (options.follow || options.raw))
      throw UsageError(L"--json goes neither with --follow nor --raw");
    return;
  }
  if (options.action != L"on" && options.action != L"off") {
    throw UsageError(L"the action is on, off or show, not " + Quoted(options.action));
  }
  RefuseOutsideOfShow(options);
  if (options.action == L"off" && options.file) throw UsageError(L"\"log off\" takes no file");
}

void LogSyntax(Syntax& syntax, LogOptions& options) {
  syntax.Operand("ACTION", options.action, "on, off or show");
  syntax
      .Operand("FILE", options.file,
               "on: the log's file (default: the last one, or one for all users); show: another file to read")
      .Required(false);
  syntax.Flag("--follow", options.follow, "show: go on while the log grows; ends with Ctrl+C");
  syntax.Flag("--nested", options.nested, "show: every line of a call below it");
  syntax.Flag("--failures", options.failures, "show: only calls that failed");
  syntax.Flag("--raw", options.raw,
              "show: the text as it is; on a terminal, characters that do not print are shown as \\xNN");
  AddColourOption(syntax, options.colour);
  syntax.Json(options.json);
  syntax.Check([&options] { CheckWords(options); });
  syntax.Notes(
      "\"log on\" makes the file, and folders in which users may only read; it refuses links and files with\n"
      "several names, and warns of a folder that users may write in.\n"
      "Each call of the provider becomes one line: the entry, the key, the status with its meaning, and\n"
      "the line of the log that tells why. \"log on\" and \"log off\" need administrator rights, look after\n"
      "both widths, and count for programs that start afterwards. The log holds the names of keys, and\n"
      "never a PIN.");
}

// The log has one byte for each character up to 0xFF.
std::wstring FromLog(std::string_view text) {
  std::wstring wide;
  for (const char c : text)
    wide += static_cast<wchar_t>(static_cast<unsigned char>(c));
  return wide;
}

// What the reason adds to the status, whose name most reasons begin with.
std::wstring Addition(const std::wstring& status, const std::wstring& reason) {
  const std::wstring name = status.substr(0, status.find(L' '));
  if (reason == name) return {};
  return reason.starts_with(name + L": ") ? reason.substr(name.size() + 2) : reason;
}

std::wstring Outcome(const LogRecord& record) {
  if (!record.finished) return L"no end: the program stopped here, or several wrote at once";
  if (record.status == 0u) return L"ok";
  const std::wstring reason = Printable(FromLog(record.reason));
  if (!record.status) return reason.empty() ? L"no status" : reason;
  const std::wstring status = DescribeStatus(static_cast<long>(*record.status));
  const std::wstring addition = Addition(status, reason);
  return addition.empty() ? status : status + L" - " + addition;
}

std::wstring LineOf(const LogRecord& record) {
  constexpr size_t kEntryWidth = 24;
  constexpr size_t kKeyWidth = 24;
  switch (record.kind) {
    case LogRecord::Kind::kLoad:
      return L"---- a program loaded the provider: " + Printable(FromLog(record.title));
    case LogRecord::Kind::kCall:
      return InColumn(Printable(FromLog(record.title)), kEntryWidth) +
             InColumn(Printable(FromLog(record.key)), kKeyWidth) + Outcome(record);
    default:
      return L"---- outside of any call";
  }
}

Json InJson(const LogRecord& record) {
  constexpr const char* kKinds[] = {"call", "load", "other"};
  Json lines = Json::array();
  for (const std::string& line : record.lines)
    lines.push_back(Utf8(FromLog(line)));
  Json json = {{"kind", kKinds[static_cast<size_t>(record.kind)]},
               {"title", Utf8(FromLog(record.title))},
               {"key", Utf8(FromLog(record.key))},
               {"status", nullptr},
               {"status_text", ""},
               {"reason", Utf8(FromLog(record.reason))},
               {"finished", record.finished},
               {"failed", record.Failed()},
               {"lines", std::move(lines)}};
  if (record.status) {
    json["status"] = *record.status;
    json["status_text"] = *record.status == 0 ? "ok" : Utf8(DescribeStatus(static_cast<long>(*record.status)));
  }
  return json;
}

class RecordPrinter {
 public:
  explicit RecordPrinter(const LogOptions& options) : options_(options), coloured_(WantsColour(options.colour)) {}

  void Take(const std::vector<LogRecord>& records) {
    for (const LogRecord& record : records) {
      if (options_.failures && !record.Failed()) continue;
      if (options_.json) {
        json_.push_back(InJson(record));
      } else {
        Show(record);
      }
    }
  }

  void Finish() const {
    if (options_.json) SayJson({{"records", json_}});
  }

 private:
  void Show(const LogRecord& record) const {
    // Lines outside of calls are details like those inside.
    if (record.kind == LogRecord::Kind::kOther && !options_.nested) return;
    const std::wstring line = LineOf(record);
    Say(coloured_ && record.Failed() ? Coloured(line, Colour::kRed) : line);
    if (!options_.nested) return;
    for (const std::string& nested : record.lines)
      Say(L"    " + Printable(FromLog(nested)));
  }

  const LogOptions& options_;
  bool coloured_;
  Json json_ = Json::array();
};

// The file is opened for each look: the log may be moved or deleted at any time.
class LogTail {
 public:
  explicit LogTail(std::wstring file) : file_(std::move(file)) {}

  // What has come since the last look; throws Failure when the file cannot be read. `anew` tells that it is another
  // file than before, or was emptied.
  std::string Read(bool* anew) {
    const Handle file(CreateFileW(file_.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                  nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) throw Failure(L"Reading the log " + Quoted(file_), static_cast<long>(GetLastError()));
    LARGE_INTEGER size = {};
    GetFileSizeEx(file.get(), &size);
    *anew = size.QuadPart < position_.QuadPart;
    if (*anew) position_ = {};
    SetFilePointerEx(file.get(), position_, nullptr, FILE_BEGIN);
    std::string text;
    char piece[16384];
    DWORD count = 0;
    while (ReadFile(file.get(), piece, sizeof piece, &count, nullptr) && count > 0)
      text.append(piece, count);
    position_.QuadPart += static_cast<LONGLONG>(text.size());
    return text;
  }

 private:
  std::wstring file_;
  LARGE_INTEGER position_ = {};
};

// The log's bytes for files and pipes. On a terminal, names in it must not be able to steer that.
void SayRaw(const std::string& text) {
  if (IsTerminal()) {
    SayText(PrintableLines<wchar_t>(FromLog(text)));
    return;
  }
  DWORD written = 0;
  WriteFile(StandardOutput(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

[[noreturn]] void Follow(LogTail& tail, const std::function<void(const std::string&, bool)>& take) {
  for (;;) {
    Sleep(kFollowPause);
    bool anew = false;
    std::string text;
    try {
      text = tail.Read(&anew);
    } catch (const Failure&) {
      // It was moved or deleted; the provider's next line makes it again.
      continue;
    }
    if (anew || !text.empty()) take(text, anew);
  }
}

ExitStatus ShowLog(const LogOptions& options) {
  const std::optional<std::wstring> file = options.file ? options.file : LogFile();
  if (!file) {
    throw Failure(L"There is no log", ExitStatus::kNotFound)
        .Advise(L"As an administrator, \"keldactl log on\" switches it on.");
  }
  LogTail tail(*file);
  LogReader reader;
  RecordPrinter printer(options);
  const auto take = [&](const std::string& text, bool anew) {
    if (options.raw) {
      SayRaw(text);
      return;
    }
    if (anew) printer.Take(reader.Finish());
    printer.Take(reader.Feed(text));
  };
  bool anew = false;
  take(tail.Read(&anew), false);
  if (options.follow) Follow(tail, take);
  printer.Take(reader.Finish());
  printer.Finish();
  return ExitStatus::kDone;
}

ExitStatus RunLog(const LogOptions& options) {
  if (options.action == L"show") return ShowLog(options);
  SayReport(options.action == L"on" ? SwitchLogOn(options.file) : SwitchLogOff());
  return ExitStatus::kDone;
}

}  // namespace

void AddLogCommand(Program& program) {
  program.Add<LogOptions>(Heading::kSystem, "log", "Switch the provider's log on or off, or show it", LogSyntax,
                          RunLog);
}

}  // namespace keldactl
