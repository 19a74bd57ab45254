// Many threads at once, with handles of their own: no deadlock, no PIN that gets lost, no torn line in the log file.
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "kit/dialogs.h"
#include "kit/provider.h"
#include "soak/faults.h"
#include "soak/heap.h"
#include "soak/random.h"
#include "soak/sequence.h"
#include "soak/watch.h"

namespace {

constexpr std::size_t kThreads = 8;
constexpr char kPin[] = "~Pn7~Pn7A";

// What the runtime library writes to files, piece by piece, while this lives. Two appending writers may still place
// their pieces over each other, as the library seeks before it writes; what a piece holds is the provider's part.
class WrittenPieces {
 public:
  WrittenPieces() {
    auto* base = reinterpret_cast<BYTE*>(GetModuleHandleW(L"msvcrt.dll"));
    const auto* nt =
        reinterpret_cast<const IMAGE_NT_HEADERS*>(base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
    const DWORD imports = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
    for (auto* library = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + imports); library->FirstThunk;
         ++library) {
      auto* names = reinterpret_cast<const IMAGE_THUNK_DATA*>(base + library->OriginalFirstThunk);
      auto* addresses = reinterpret_cast<IMAGE_THUNK_DATA*>(base + library->FirstThunk);
      for (; names->u1.AddressOfData; ++names, ++addresses) {
        if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) continue;
        const auto* name = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
        if (std::strcmp(reinterpret_cast<const char*>(&name->Name[0]), "WriteFile") != 0) continue;
        place_ = reinterpret_cast<void**>(&addresses->u1.Function);
      }
    }
    pieces().clear();
    if (place_) Put(reinterpret_cast<void*>(&Write));
  }
  ~WrittenPieces() {
    if (place_) Put(reinterpret_cast<void*>(&WriteFile));
  }
  WrittenPieces(const WrittenPieces&) = delete;
  WrittenPieces& operator=(const WrittenPieces&) = delete;

  bool watching() const { return place_ != nullptr; }
  // With line ends as the program wrote them.
  static std::vector<std::string> Take() {
    const std::lock_guard guard(lock());
    return std::move(pieces());
  }

 private:
  static std::mutex& lock() {
    static std::mutex mutex;
    return mutex;
  }
  static std::vector<std::string>& pieces() {
    static std::vector<std::string> list;
    return list;
  }
  static BOOL WINAPI Write(HANDLE file, LPCVOID bytes, DWORD size, LPDWORD written, LPOVERLAPPED overlapped) {
    std::string piece;
    for (DWORD i = 0; i < size; ++i) {
      if (const char character = static_cast<const char*>(bytes)[i]; character != '\r') piece += character;
    }
    {
      const std::lock_guard guard(lock());
      pieces().push_back(std::move(piece));
    }
    return WriteFile(file, bytes, size, written, overlapped);
  }
  void Put(void* function) {
    DWORD protection = 0;
    VirtualProtect(place_, sizeof(void*), PAGE_READWRITE, &protection);
    *place_ = function;
    VirtualProtect(place_, sizeof(void*), protection, &protection);
  }

  void** place_ = nullptr;
};

class ThreadsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    soak::InstallHarness(soak::HeapKind::Plain);
    fake::Token().Reset();
    soak::Platform() = soak::PlatformSettings();
    soak::SetDialogAnswer([this](const std::function<std::intptr_t()>& open) {
      ++dialogs_;
      kit::DialogRobot robot({[](kit::Dialog& dialog) {
        dialog.Type(kit::kPinField, std::wstring(kPin, kPin + sizeof kPin - 1));
        dialog.PressOk();
      }});
      const std::intptr_t result = open();
      robot.Finish();
      return result;
    });
    soak::SetPosition({0, 0, "threads", ""});
  }
  void TearDown() override {
    soak::SetDialogAnswer(nullptr);
    kit::Provider::Get().Unload();
    soak::Platform() = soak::PlatformSettings();
    EXPECT_EQ(soak::TakeLeakedLine(), "");
    EXPECT_EQ(soak::Heap::Get().TakeViolation(), "");
    soak::SetIdle();
  }

  const kit::FunctionTable& ksp() const { return *kit::Provider::Get().table; }

  // A token of its own for every thread, or one for all.
  void AddTokens(std::size_t count, const std::string& serial) {
    for (std::size_t i = 0; i < count; ++i) {
      fake::Slot& slot = fake::Token().AddSlot("Reader " + std::to_string(i));
      slot.serial = serial + std::to_string(i);
      slot.pin = kPin;
      for (const char* id : {"Key1", "Key2"})
        fake::Token().AddKeyPair(fake::Ascii(id), "label", 1024, i);
    }
  }

  // A provider on the given token: for the moment of the open it is the only one that is there.
  NCRYPT_PROV_HANDLE OpenOn(std::size_t token, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
      fake::Token().SlotAt(i).tokenPresent = i == token;
    NCRYPT_PROV_HANDLE provider = 0;
    EXPECT_EQ(ksp().OpenProvider(&provider, kit::kProviderName, NCRYPT_SILENT_FLAG), 0);
    for (std::size_t i = 0; i < count; ++i)
      fake::Token().SlotAt(i).tokenPresent = true;
    return provider;
  }

  SECURITY_STATUS Sign(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, BYTE first = 1) {
    BYTE hash[20] = {first};
    BYTE signature[128] = {};
    DWORD length = 0;
    const SECURITY_STATUS status =
        ksp().SignHash(provider, key, nullptr, hash, sizeof hash, signature, sizeof signature, &length, 0);
    if (status != 0) return status;
    // What was signed is what the token says that it is.
    static const BYTE prefix[] = {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2b, 0x0e,
                                  0x03, 0x02, 0x1a, 0x05, 0x00, 0x04, 0x14};
    fake::Bytes block(sizeof prefix + sizeof hash);
    std::copy(prefix, prefix + sizeof prefix, block.begin());
    std::copy(hash, hash + sizeof hash, block.begin() + sizeof prefix);
    const fake::Bytes expected = fake::Token().Signature(kit::KeyOf(key)->hPrivateKeyObject, block);
    return std::equal(expected.begin(), expected.end(), signature, signature + length) ? 0 : NTE_BAD_SIGNATURE;
  }

  // Until the dialog of another thread makes room for this one's.
  SECURITY_STATUS SignPatiently(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key) {
    for (;;) {
      const SECURITY_STATUS status = Sign(provider, key);
      if (status != static_cast<SECURITY_STATUS>(SCARD_W_CANCELLED_BY_USER)) return status;
      std::this_thread::yield();
    }
  }

  // One random valid call; every one of them has to work.
  void RandomCall(soak::Random& random, NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key) {
    const kit::FunctionTable& t = ksp();
    switch (random.Below(7)) {
      case 0: {
        NCRYPT_KEY_HANDLE opened = 0;
        EXPECT_EQ(t.OpenKey(provider, &opened, L"Key2", 3, 0), 0);
        EXPECT_EQ(t.FreeKey(provider, opened), 0);
        break;
      }
      case 1: {
        NCryptKeyName* name = nullptr;
        PVOID state = nullptr;
        EXPECT_EQ(t.EnumKeys(provider, nullptr, &name, &state, 0), 0);
        t.FreeBuffer(name);
        t.FreeBuffer(state);
        break;
      }
      case 2: {
        BYTE plain[20] = {7};
        BYTE cipher[128];
        BYTE back[128];
        DWORD length = 0;
        EXPECT_EQ(t.Encrypt(provider, key, plain, sizeof plain, nullptr, cipher, sizeof cipher, &length, 0), 0);
        EXPECT_EQ(t.Decrypt(provider, key, cipher, length, nullptr, back, sizeof back, &length, 0), 0);
        EXPECT_EQ(length, sizeof plain);
        break;
      }
      case 3: {
        NCRYPT_KEY_HANDLE created = 0;
        EXPECT_EQ(t.CreatePersistedKey(provider, &created, L"RSA", nullptr, 0, 0), 0);
        EXPECT_EQ(t.FinalizeKey(provider, created, 0), 0);
        EXPECT_EQ(t.DeleteKey(provider, created, 0), 0);
        break;
      }
      case 4: {
        BYTE blob[512];
        DWORD length = 0;
        EXPECT_EQ(t.ExportKey(provider, key, 0, L"RSAPUBLICBLOB", nullptr, blob, sizeof blob, &length, 0), 0);
        EXPECT_EQ(length, 24u + 3u + 128u);
        break;
      }
      default:
        EXPECT_EQ(Sign(provider, key, static_cast<BYTE>(random.Next())), 0);
    }
  }

  template <typename Work>
  void OnThreads(Work work) {
    std::atomic<std::size_t> ready{0};
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        ++ready;
        while (ready != kThreads)
          std::this_thread::yield();
        work(i);
      });
    }
    for (std::thread& thread : threads)
      thread.join();
    fake::Token().ClearCalls();
    soak::SetPosition({0, 0, "threads", ""});
  }

  std::atomic<std::uint32_t> dialogs_{0};
};

TEST_F(ThreadsTest, OneTokenCachedAndUncached) {
  ASSERT_TRUE(kit::Provider::Get().LoadAsConfigured());
  AddTokens(1, "shared");
  NCRYPT_PROV_HANDLE providers[kThreads];
  NCRYPT_KEY_HANDLE keys[kThreads];
  for (std::size_t i = 0; i < kThreads; ++i) {
    providers[i] = OpenOn(0, 1);
    ASSERT_EQ(ksp().OpenKey(providers[i], &keys[i], L"Key1", 0, 0), 0);
  }
  for (int round = 0; round < 6; ++round) {
    // All threads meet a token that the cache does not know; whoever gets the dialog serves the others.
    fake::Token().SlotAt(0).serial = "round" + std::to_string(round);
    fake::Token().SlotAt(0).loggedIn = false;
    const std::uint32_t before = dialogs_;
    OnThreads([&](std::size_t i) {
      soak::Random random(static_cast<std::uint64_t>(round) * kThreads + i);
      EXPECT_EQ(SignPatiently(providers[i], keys[i]), 0);
      for (int call = 0; call < 60; ++call)
        RandomCall(random, providers[i], keys[i]);
    });
    EXPECT_GT(dialogs_, before);
    const std::uint32_t after = dialogs_;
    EXPECT_EQ(Sign(providers[0], keys[0]), 0);
    EXPECT_EQ(dialogs_, after) << "the PIN is not in the cache";
  }
  for (std::size_t i = 0; i < kThreads; ++i) {
    EXPECT_EQ(ksp().FreeKey(providers[i], keys[i]), 0);
    EXPECT_EQ(ksp().FreeProvider(providers[i]), 0);
  }
}

TEST_F(ThreadsTest, NoPinOfManyTokensGetsLost) {
  ASSERT_TRUE(kit::Provider::Get().LoadAsConfigured());
  AddTokens(kThreads, "own");
  NCRYPT_PROV_HANDLE providers[kThreads];
  NCRYPT_KEY_HANDLE keys[kThreads];
  for (std::size_t i = 0; i < kThreads; ++i) {
    providers[i] = OpenOn(i, kThreads);
    ASSERT_EQ(ksp().OpenKey(providers[i], &keys[i], L"Key1", 0, 0), 0);
  }
  constexpr int kRounds = 4;
  const auto use = [&](int round) {
    for (std::size_t i = 0; i < kThreads; ++i) {
      fake::Token().SlotAt(i).serial = "r" + std::to_string(round) + "t" + std::to_string(i);
      fake::Token().SlotAt(i).loggedIn = false;
    }
  };
  for (int round = 0; round < kRounds; ++round) {
    use(round);
    OnThreads([&](std::size_t i) { EXPECT_EQ(SignPatiently(providers[i], keys[i]), 0); });
  }
  const std::uint32_t before = dialogs_;
  for (int round = 0; round < kRounds; ++round) {
    use(round);
    for (std::size_t i = 0; i < kThreads; ++i)
      EXPECT_EQ(Sign(providers[i], keys[i]), 0);
  }
  EXPECT_EQ(dialogs_, before) << "a PIN is not in the cache any more";
  for (std::size_t i = 0; i < kThreads; ++i) {
    EXPECT_EQ(ksp().FreeKey(providers[i], keys[i]), 0);
    EXPECT_EQ(ksp().FreeProvider(providers[i]), 0);
  }
}

TEST_F(ThreadsTest, EachLineGoesToTheFileInOnePiece) {
  wchar_t folder[MAX_PATH];
  GetTempPathW(MAX_PATH, folder);
  const std::wstring path = std::wstring(folder) + L"kelda_soak_" + std::to_wstring(GetCurrentProcessId()) + L".log";
  soak::Platform().logFile = path;
  soak::Platform().realFile = true;
  ASSERT_TRUE(kit::Provider::Get().LoadAsConfigured());
  soak::Platform().keepLines = true;
  soak::TakeLines();
  std::vector<std::string> written;
  {
    const WrittenPieces pieces;
    ASSERT_TRUE(pieces.watching());
    OnThreads([&](std::size_t i) {
      for (int call = 0; call < 40; ++call) {
        const std::wstring name = std::to_wstring(i) + L":" + std::wstring(20 + 60 * i, static_cast<wchar_t>(L'a' + i));
        ksp().IsAlgSupported(0, name.c_str(), 0);
      }
    });
    written = WrittenPieces::Take();
  }
  DeleteFileW(path.c_str());
  std::vector<std::string> said = soak::TakeLines();
  EXPECT_GT(said.size(), 1000u);
  for (std::string& line : said)
    line += '\n';
  std::sort(said.begin(), said.end());
  std::sort(written.begin(), written.end());
  EXPECT_TRUE(kit::SameTexts(said, written));
}

}  // namespace
