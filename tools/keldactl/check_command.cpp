#include "commands.h"
#include "health_check.h"
#include "json.h"
#include "output.h"
#include "status.h"
#include "terminal.h"
#include "text_rules.h"
#include "token_module.h"
#include "unicode.h"

#include <array>
#include <cwchar>

namespace keldactl {
namespace {

struct CheckOptions {
  std::optional<std::wstring> key;
  bool sign = false;
  bool token_module = false;
  std::optional<std::wstring> answer_to;  // of the process that examines the module for another keldactl
  std::wstring colour = kColourAuto;
  bool json = false;
};

void CheckSyntax(Syntax& syntax, CheckOptions& options) {
  const Option key = syntax.Text("--key", options.key, "NAME", "look at this key only");
  const Option sign = syntax.Flag("--sign", options.sign, "also log in (the provider asks for the PIN) and sign");
  const Option module =
      syntax.Flag("--token-module", options.token_module, "look at the token module only, and say what it tells")
          .Excludes(key)
          .Excludes(sign);
  // No word for people, and in no help.
  syntax.Text("--answer-to", options.answer_to, "HANDLE", "").Needs(module).Hidden();
  AddColourOption(syntax, options.colour);
  syntax.Json(options.json);
  syntax.Notes("Ends with 0 when no step failed; a warning is no failure.");
}

const wchar_t* InWords(Verdict verdict) {
  switch (verdict) {
    case Verdict::kOk:
      return L"ok";
    case Verdict::kWarning:
      return L"warning";
    case Verdict::kFailed:
      return L"failed";
    default:
      return L"skipped";
  }
}

Colour ColourOf(Verdict verdict) {
  if (verdict == Verdict::kFailed) return Colour::kRed;
  return verdict == Verdict::kWarning ? Colour::kYellow : Colour::kPlain;
}

void SayStep(const HealthStep& step, bool coloured) {
  std::wstring number = std::to_wstring(step.number);
  number.insert(0, number.size() < 2 ? 2 - number.size() : 0, L' ');
  std::wstring verdict = InWords(step.verdict);
  verdict.append(9 - verdict.size(), L' ');
  const std::wstring line = number + L"  " + verdict + step.title + (step.details.empty() ? L"" : L": ") + step.details;
  Say(coloured ? Coloured(line, ColourOf(step.verdict)) : line);
  if (!step.advice.empty()) Say(L"             " + step.advice);
}

ExitStatus ExamineModule(const CheckOptions& options) {
  if (options.answer_to) {
    const bool answered = AnswerAboutTokenModule(std::wcstoull(options.answer_to->c_str(), nullptr, 10));
    return answered ? ExitStatus::kDone : ExitStatus::kFailed;
  }
  const ModuleReport report = ExamineTokenModuleApart();
  if (options.json) {
    SayJson(ToJson(report));
  } else if (report.end != ModuleEnd::kAnswered) {
    Say(L"The token module does not answer: " + EndInWords(report) + L".");
  } else if (!report.loaded) {
    Say(L"The token module does not load: " + DescribeStatus(static_cast<long>(report.load_error)));
  } else if (!report.initialized) {
    Say(L"The token module does not initialize.");
  } else {
    Say(L"The token module " + Quoted(Wide(report.description)) + L" initializes.");
    std::vector<std::vector<std::wstring>> rows = {
        {L"TOKEN", L"READER", L"PUBLIC KEYS", L"PRIVATE KEYS", L"CERTIFICATES"}};
    for (const TokenReport& token : report.tokens) {
      rows.push_back({Printable(Wide(token.label)), Printable(Wide(token.slot)),
                      std::to_wstring(token.public_keys.size()), std::to_wstring(token.private_keys.size()),
                      std::to_wstring(token.certificates.size())});
    }
    SayTable(rows);
  }
  return report.initialized ? ExitStatus::kDone : ExitStatus::kFailed;
}

Json InJson(const HealthStep& step) {
  return {{"number", step.number},         {"id", step.id},
          {"title", Utf8(step.title)},     {"result", Utf8(InWords(step.verdict))},
          {"details", Utf8(step.details)}, {"advice", Utf8(step.advice)}};
}

ExitStatus RunCheck(const CheckOptions& options) {
  if (options.token_module) return ExamineModule(options);
  const bool coloured = WantsColour(options.colour);
  std::array<int, 4> counts = {};
  Json steps = Json::array();
  const bool healthy = CheckHealth({options.key, options.sign}, [&](const HealthStep& step) {
    ++counts[static_cast<size_t>(step.verdict)];
    if (options.json) {
      steps.push_back(InJson(step));
    } else {
      SayStep(step, coloured);
    }
  });
  const auto count = [&](Verdict verdict) { return counts[static_cast<size_t>(verdict)]; };
  if (options.json) {
    SayJson({{"healthy", healthy},
             {"ok", count(Verdict::kOk)},
             {"warnings", count(Verdict::kWarning)},
             {"failed", count(Verdict::kFailed)},
             {"skipped", count(Verdict::kSkipped)},
             {"steps", std::move(steps)}});
  } else {
    Say(std::to_wstring(count(Verdict::kOk)) + L" ok, " +
        Counted<wchar_t>(static_cast<size_t>(count(Verdict::kWarning)), L"warning") + L", " +
        std::to_wstring(count(Verdict::kFailed)) + L" failed, " + std::to_wstring(count(Verdict::kSkipped)) +
        L" skipped");
  }
  return healthy ? ExitStatus::kDone : ExitStatus::kFailed;
}

}  // namespace

void AddCheckCommand(Program& program) {
  program.Add<CheckOptions>(Heading::kSystem, "check", "Check everything from the registration to a verified signature",
                            CheckSyntax, RunCheck);
}

}  // namespace keldactl
