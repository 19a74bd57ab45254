// bench --out FILE [--end-to-end] [FILTER]: appends results to FILE, a line of JSON for each; FILTER is a part of the
// names of what is to be measured. scripts/bench.sh builds and runs it.
#include <windows.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bare_token.h"
#include "demanded.h"
#include "end_to_end.h"
#include "report.h"
#include "stage.h"
#include "timing.h"

namespace {

using bench::Call;
using bench::Plan;
using bench::Stage;

// One call of an entry, with what has to be given back of it.
struct Entry {
  const char* name;
  std::function<void(Stage&, const Stage::Handles&)> call;
};

BYTE* Bytes(const wchar_t* text) {
  return reinterpret_cast<BYTE*>(const_cast<wchar_t*>(text));
}

void Sign(Stage& stage, const Stage::Handles& handles) {
  BYTE hash[20] = {1};
  BYTE signature[128];
  DWORD length = 0;
  stage.ksp().SignHash(handles.provider, handles.key, nullptr, hash, sizeof(hash), signature, sizeof(signature),
                       &length, 0);
}

void BuildList(Stage& stage, const Stage::Handles& handles) {
  NCryptKeyName* name = nullptr;
  PVOID state = nullptr;
  stage.ksp().EnumKeys(handles.provider, nullptr, &name, &state, 0);
  stage.ksp().FreeBuffer(name);
  stage.ksp().FreeBuffer(state);
}

void OpenLastKey(Stage& stage, const Stage::Handles& handles) {
  NCRYPT_KEY_HANDLE key = 0;
  stage.ksp().OpenKey(handles.provider, &key, stage.LastKey().c_str(), 0, 0);
  stage.ksp().FreeKey(handles.provider, key);
}

const std::vector<Entry>& Entries() {
  static const std::vector<Entry> entries = {
      {"SignHash", &Sign},
      {"VerifySignature",
       [](Stage& stage, const Stage::Handles& handles) {
         BYTE hash[20] = {1};
         BYTE signature[128] = {};
         stage.ksp().VerifySignature(handles.provider, handles.key, nullptr, hash, sizeof(hash), signature,
                                     sizeof(signature), 0);
       }},
      {"Encrypt",
       [](Stage& stage, const Stage::Handles& handles) {
         BYTE plain[20] = {1};
         BYTE cipher[128];
         DWORD length = 0;
         stage.ksp().Encrypt(handles.provider, handles.key, plain, sizeof(plain), nullptr, cipher, sizeof(cipher),
                             &length, NCRYPT_PAD_PKCS1_FLAG);
       }},
      {"Decrypt",
       [](Stage& stage, const Stage::Handles& handles) {
         BYTE cipher[128] = {};
         BYTE plain[128];
         DWORD length = 0;
         stage.ksp().Decrypt(handles.provider, handles.key, cipher, sizeof(cipher), nullptr, plain, sizeof(plain),
                             &length, NCRYPT_PAD_PKCS1_FLAG);
       }},
      {"ExportKey",
       [](Stage& stage, const Stage::Handles& handles) {
         BYTE blob[512];
         DWORD length = 0;
         stage.ksp().ExportKey(handles.provider, handles.key, 0, L"RSAPUBLICBLOB", nullptr, blob, sizeof(blob), &length,
                               0);
       }},
      {"OpenKey, FreeKey", &OpenLastKey},
      {"CreatePersistedKey, FreeKey",
       [](Stage& stage, const Stage::Handles& handles) {
         NCRYPT_KEY_HANDLE key = 0;
         stage.ksp().CreatePersistedKey(handles.provider, &key, L"RSA", L"New", 0, 0);
         stage.ksp().FreeKey(handles.provider, key);
       }},
      {"EnumKeys, first", &BuildList},
      {"GetKeyProperty",
       [](Stage& stage, const Stage::Handles& handles) {
         BYTE value[256];
         DWORD length = 0;
         stage.ksp().GetKeyProperty(handles.provider, handles.key, L"Name", value, sizeof(value), &length, 0);
       }},
      {"GetProviderProperty",
       [](Stage& stage, const Stage::Handles& handles) {
         BYTE value[256];
         DWORD length = 0;
         stage.ksp().GetProviderProperty(handles.provider, L"Name", value, sizeof(value), &length, 0);
       }},
      {"SetProviderProperty",
       [](Stage& stage, const Stage::Handles& handles) {
         stage.ksp().SetProviderProperty(handles.provider, L"Use Context", Bytes(L"text"), sizeof(L"text"), 0);
       }},
      {"EnumAlgorithms, FreeBuffer",
       [](Stage& stage, const Stage::Handles& handles) {
         DWORD count = 0;
         NCryptAlgorithmName* list = nullptr;
         stage.ksp().EnumAlgorithms(handles.provider, 0, &count, &list, 0);
         stage.ksp().FreeBuffer(list);
       }},
      {"IsAlgSupported",
       [](Stage& stage, const Stage::Handles& handles) { stage.ksp().IsAlgSupported(handles.provider, L"RSA", 0); }},
      {"PromptUser",
       [](Stage& stage, const Stage::Handles& handles) {
         stage.ksp().PromptUser(handles.provider, handles.key, L"", 0);
       }},
      {"OpenProvider, FreeProvider",
       [](Stage& stage, const Stage::Handles&) {
         NCRYPT_PROV_HANDLE provider = 0;
         stage.ksp().OpenProvider(&provider, kit::kProviderName, NCRYPT_SILENT_FLAG);
         stage.ksp().FreeProvider(provider);
       }},
  };
  return entries;
}

// Batches shorter than what the scheduler gives at once: those that nothing interrupts tell the time.
const Plan kOwnTime = {51, 0.5, 20, {}};

class Bench {
 public:
  Bench(const std::string& filter, bench::Report& report) : filter_(filter), report_(report) {}

  void Run() {
    for (const bool log : {false, true}) {
      for (const Entry& entry : Entries())
        Measure({"entry", entry.name, log, 1, 0}, entry.call, Batches(1));
    }
    for (const bool log : {false, true}) {
      for (const std::size_t keys : {1U, 10U, 100U, 1000U}) {
        if (log && keys > 100) continue;  // some hundred thousand openings of the file
        Measure({"keys", "list of all keys", log, keys, 0}, &BuildList, Batches(keys));
        Measure({"keys", "lookup of the last key", log, keys, 0}, &OpenLastKey, Batches(keys));
      }
    }
    for (const std::size_t threads : {1U, 2U, 4U})
      MeasureThreads(threads);
    MeasureLoad();
  }

 private:
  static std::size_t Batches(std::size_t keys) { return keys >= 100 ? 15 : 31; }
  bool Wanted(const std::string& name) const { return name.find(filter_) != std::string::npos; }

  void On(bool log, std::size_t keys) {
    if (!stage_) stage_ = std::make_unique<Stage>();
    if (set_ && stage_->log() == log && stage_->keyPairs() == keys) return;
    stage_->Set(log, keys);
    set_ = true;
  }

  // Against the demanded calls, and by itself on a platform and a token that answer at once.
  void Measure(const bench::Subject& subject, const std::function<void(Stage&, const Stage::Handles&)>& entry,
               std::size_t batches) {
    if (!Wanted(subject.name)) return;
    On(subject.log, subject.keys);
    const Call call = [&] { entry(*stage_, stage_->handles()); };
    call();
    const bench::Work work = bench::Demanded(stage_->imports(), stage_->token(), call);
    const Plan plan{batches, 10, 20, [&] { stage_->Forget(); }};
    report_.Compared(subject,
                     bench::Compare(
                         call, [&] { work.Run(); }, plan),
                     "provider", "demanded");

    const std::string name = subject.name;
    if (name.find("OpenProvider") != std::string::npos) return;  // it goes by what registry and token answer
    const fake::FunctionList token = stage_->token();
    bench::FillBareToken(stage_->token(), fake::Token().SlotAt(0).id, subject.keys);
    bench::StubPlatform(stage_->imports(), subject.log);
    const bench::Quartiles own = bench::TimeOf(call, kOwnTime);
    stage_->imports().Restore();
    stage_->token() = token;
    report_.Timed(subject, "own", own);
  }

  // So many signatures at once, in threads with handles of their own.
  void MeasureThreads(std::size_t threads) {
    const bench::Subject subject{"threads", "SignHash", false, 1, threads};
    if (!Wanted(subject.name)) return;
    On(false, 1);
    constexpr std::size_t kSignatures = 100;
    std::vector<Stage::Handles> handles;
    std::vector<bench::Work> works;
    for (std::size_t i = 0; i < threads; ++i) {
      handles.push_back(stage_->Open(stage_->LastKey()));
      Sign(*stage_, handles.back());
      works.push_back(bench::Demanded(stage_->imports(), stage_->token(), [&] { Sign(*stage_, handles.back()); }));
    }
    const auto inThreads = [&](const std::function<void(std::size_t)>& one) {
      std::vector<std::thread> running;
      for (std::size_t i = 0; i < threads; ++i) {
        running.emplace_back([&, i] {
          for (std::size_t n = 0; n < kSignatures; ++n)
            one(i);
        });
      }
      for (std::thread& thread : running)
        thread.join();
    };
    const Plan plan{21, 20, 20, [&] { stage_->Forget(); }};
    bench::Comparison result = bench::Compare([&] { inThreads([&](std::size_t i) { Sign(*stage_, handles[i]); }); },
                                              [&] { inThreads([&](std::size_t i) { works[i].Run(); }); }, plan);
    for (bench::Quartiles* times : {&result.first, &result.second}) {
      for (double* time : {&times->low, &times->median, &times->high})
        *time /= static_cast<double>(threads * kSignatures);
    }
    report_.Compared(subject, result, "provider", "demanded");
    for (const Stage::Handles& one : handles)
      stage_->Close(one);
  }

  // The DLL beside one that does nothing.
  void MeasureLoad() {
    const bench::Subject subject{"load", "LoadLibrary, FreeLibrary", false, 0, 0};
    if (!Wanted(subject.name)) return;
    stage_.reset();
    set_ = false;
    stage_ = std::make_unique<Stage>();
    const std::wstring empty = Stage::ProgramFolder() + L"..\\fake\\without_list\\keldapkcs11.dll";
    const Call nothing = [&] {
      const HMODULE module = LoadLibraryW(empty.c_str());
      if (module != nullptr) FreeLibrary(module);
    };
    report_.Compared(subject, bench::Compare([&] { stage_->LoadOnce(); }, nothing, {31, 20, 20, {}}), "provider",
                     "empty");
  }

  std::string filter_;
  bench::Report& report_;
  std::unique_ptr<Stage> stage_;
  bool set_ = false;
};

}  // namespace

int main(int argc, char** argv) {
  std::string out;
  std::string filter;
  bool endToEnd = false;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--out" && i + 1 < argc) {
      out = argv[++i];
    } else if (word == "--end-to-end") {
      endToEnd = true;
    } else {
      filter = word;
    }
  }
  try {
    bench::Report report(out.c_str());
    if (endToEnd) {
      MeasureEndToEnd(report);
    } else {
      Bench(filter, report).Run();
    }
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench: %s\n", error.what());
    return 1;
  }
}
