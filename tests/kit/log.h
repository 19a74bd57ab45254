// What the provider says: the debugger's lines, the log file, and through which of its log instances a line went.
#pragma once

#include <windows.h>

#include <initializer_list>
#include <iosfwd>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace kit {

// The log instances in the order in which the provider constructs them while it is loaded. Later ones (each token
// object and each entry of the PIN cache has one) are numbered on from 6.
enum Instance : int { kNoInstance = 0, kKeyNameLog = 1, kMainLog = 2, kModuleLog = 3, kPinManagerLog = 4, kPinLog = 5 };

struct Line {
  int instance = kNoInstance;
  std::string text;

  Line() = default;
  Line(const char* line) : instance(kMainLog), text(line) {}  // most lines go through the main log
  Line(std::string line) : instance(kMainLog), text(std::move(line)) {}
  Line(int through, std::string line) : instance(through), text(std::move(line)) {}
  bool operator==(const Line&) const = default;
};

void PrintTo(const Line& line, std::ostream* out);

struct DebuggerLine {
  std::string text;
  DWORD thread;
};

class Log {
 public:
  static Log& Get();

  // How the provider finds its log switched at its next load.
  enum class Mode {
    Off,     // "KSPLOG" missing
    File,    // one file, as in real use
    Tagged,  // the nth construction of a log instance is given a file of its own, so that lines tell their instance
  };

  // Installs the debugger capture. Once for a process.
  void Install();
  // To be called before the provider is loaded: writes "KSPLOG" and "KSPDIR" and forgets earlier files.
  void Prepare(Mode mode);
  // "KSPLOG" and "KSPDIR" once more: instances that the provider constructs later read them, too.
  void WriteSwitch();
  Mode mode() const { return mode_; }
  void RemoveFiles();

  // All lines since the last Take or Drop, with their instances when the mode is Tagged (else kNoInstance). In Tagged
  // mode the debugger's lines and the files must agree in every character; a difference comes back as a line of its
  // own.
  std::vector<Line> Take();
  void Drop() { Take(); }
  // The same as plain texts, straight from the debugger.
  std::vector<DebuggerLine> TakeDebuggerLines();
  std::vector<std::wstring> TakeWideLines();

  std::wstring FilePath() const;                 // File mode
  std::string FileText(int instance = 0) const;  // with the platform's line ends turned into '\n'; 0: the one file
  int InstancesConstructed() const { return constructed_; }

  // Called by the hook on RegGetValueW: the path for the next instance, empty when the registry's is to be used.
  std::wstring NextPath();
  void NoteDebugger(const char* text, std::size_t length);
  void NoteWide(const wchar_t* text);

 private:
  std::wstring PathOf(int instance) const;
  void EmptyFolder() const;
  bool Assign(const std::vector<DebuggerLine>& lines, const std::vector<int>& instances, std::vector<Line>& result);
  Mode mode_ = Mode::Off;
  std::wstring folder_;
  int generation_ = 0;
  int constructed_ = 0;
  int known_ = 0;                       // instances constructed up to the last Take
  std::map<int, std::size_t> offsets_;  // how far each instance's file has been read, in bytes
  std::string lastMismatch_;
  std::set<int> spoken_;  // instances that have written a line
  std::mutex lock_;
  std::vector<DebuggerLine> lines_;
  std::vector<std::wstring> wide_;
};

// Builders of expected lines.
std::string Hex32(const std::string& label, ULONGLONG value);  // label + "0x%08X" of the low 32 bits
std::string Pointer32(const std::string& label, const void* pointer);
Line Number(const std::string& label, long value);  // always through the key-name log
Line KeyName(std::string text);
Line Pin(std::string text);
Line PinManager(std::string text);
std::string Dump(const std::string& label, const std::vector<unsigned char>& bytes);

inline constexpr const char kBanner[] = "==================================================================";
inline constexpr const char kClosingBanner[] = "==================================================================\n\n";

// What the entries that work with a key's bytes say to a flag that they do not know.
inline constexpr const char kBadFlags[] = "NTE_BAD_FLAGS: The dwFlags parameter contains a value that is not valid.";

std::vector<Line> Join(std::initializer_list<std::vector<Line>> parts);

// The lines of one building of the key object list, from its entry to its exit; empty when it was not built.
std::vector<Line> ListLines(const std::vector<Line>& lines);
// All but those.
std::vector<Line> WithoutListLines(const std::vector<Line>& lines);

// Takes the lines of one entry and leaves those between its argument lines and its exit line. Of the arguments only the
// count matters.
std::vector<Line> TakeBody(const std::vector<Line>& arguments);

// Banner, "<entry> - Entry", the given lines, "<entry> - Exit: " with the status, closing banner.
std::vector<Line> Frame(const std::string& entry, std::vector<Line> lines, LONG status);

}  // namespace kit
