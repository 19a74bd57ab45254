// What a fuzz target is: a function that takes any bytes and holds what the code makes of them against what must be.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace fuzz {

using Input = std::span<const std::uint8_t>;
using Target = void (*)(Input input);

// The targets of this program, by name.
inline std::map<std::string, Target>& Targets() {
  static std::map<std::string, Target> targets;
  return targets;
}

struct Registration {
  Registration(const char* name, Target target) { Targets().emplace(name, target); }
};

// Reports a finding: ends a libFuzzer program, fails the case of a replay.
[[noreturn]] void Fail(const char* what, const char* file, int line);

// Takes the input apart from its front. What is not there any more is zero or empty.
class Parts {
 public:
  explicit Parts(Input input) : left_(input) {}

  bool empty() const { return left_.empty(); }
  std::uint8_t Byte() {
    if (left_.empty()) return 0;
    const std::uint8_t byte = left_.front();
    left_ = left_.subspan(1);
    return byte;
  }
  std::uint32_t Number() {
    std::uint32_t number = 0;
    for (unsigned shift = 0; shift < 32; shift += 8)
      number |= std::uint32_t{Byte()} << shift;
    return number;
  }
  // Copies of exact size, so that the sanitizer sees every byte too many.
  std::vector<std::uint8_t> Bytes(std::size_t most) {
    const Input taken = left_.first(most < left_.size() ? most : left_.size());
    left_ = left_.subspan(taken.size());
    return std::vector<std::uint8_t>(taken.begin(), taken.end());
  }
  std::vector<std::uint8_t> Rest() { return Bytes(left_.size()); }
  // Characters without a terminator; zero characters may be among them.
  std::vector<wchar_t> Characters(std::size_t most) {
    std::vector<wchar_t> characters;
    while (characters.size() < most && left_.size() >= 2) {
      const std::uint8_t low = Byte();
      characters.push_back(static_cast<wchar_t>(low | Byte() << 8));
    }
    return characters;
  }
  // Characters up to a zero character or the end, and a terminator.
  std::vector<wchar_t> Text(std::size_t most = static_cast<std::size_t>(-1)) {
    std::vector<wchar_t> text;
    for (const wchar_t c : Characters(most)) {
      if (c == L'\0') break;
      text.push_back(c);
    }
    text.push_back(L'\0');
    return text;
  }

 private:
  Input left_;
};

}  // namespace fuzz

// Defines and registers the target: FUZZ_TARGET(hex_name) { ... input ... }
#define FUZZ_TARGET(name)                                                     \
  static void Fuzz_##name(fuzz::Input input);                                 \
  static const fuzz::Registration g_registration_##name(#name, &Fuzz_##name); \
  static void Fuzz_##name([[maybe_unused]] fuzz::Input input)

#define FUZZ_CHECK(condition)                                     \
  do {                                                            \
    if (!(condition)) fuzz::Fail(#condition, __FILE__, __LINE__); \
  } while (false)
