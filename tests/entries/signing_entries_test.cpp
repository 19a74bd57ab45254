// SignHash and VerifySignature, entry to exit: checks in their order, token calls, log lines, statuses.
#include <algorithm>
#include <string>
#include <utility>

#include "kit/key_entry.h"

namespace {

using fake::Ascii;
using fake::Bytes;
using kit::Dump;
using kit::Frame;
using kit::Hex32;
using kit::kBanner;
using kit::kClosingBanner;
using kit::Line;
using kit::Number;
using kit::Pin;
using kit::PinManager;
using kit::Pointer32;

constexpr DWORD kPkcs1 = 0x2;
constexpr DWORD kPss = 0x8;
constexpr DWORD kSilent = 0x40;
const char kBadFlags[] = "NTE_BAD_FLAGS: The dwFlags parameter contains a value that is not valid.";
const char kNoPss[] = "NTE_NOT_SUPPORTED: PSS padding scheme is currently not supported.";

// RFC 8017 9.2, note 1; MD5 from RFC 3447.
const Bytes kMd5{0x30, 0x20, 0x30, 0x0c, 0x06, 0x08, 0x2a, 0x86, 0x48,
                 0x86, 0xf7, 0x0d, 0x02, 0x05, 0x05, 0x00, 0x04, 0x10};
const Bytes kSha1{0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2b, 0x0e, 0x03, 0x02, 0x1a, 0x05, 0x00, 0x04, 0x14};
const Bytes kSha256{0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                    0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
const Bytes kSha512{0x30, 0x51, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                    0x65, 0x03, 0x04, 0x02, 0x03, 0x05, 0x00, 0x04, 0x40};

Bytes Counting(std::size_t count) {
  Bytes bytes(count);
  for (std::size_t i = 0; i < count; ++i)
    bytes[i] = static_cast<BYTE>(0xA0 + i);
  return bytes;
}

Bytes Joined(Bytes first, const Bytes& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

class SigningTest : public kit::ProviderTest {
 protected:
  void SetUp() override {
    kit::ProviderTest::SetUp();
    AddReader();
    pair_ = token().AddKeyPair(Ascii("Key1"), "", 1024);
    provider_ = OpenProvider();
    key_ = OpenKey(provider_, L"Key1");
    record_ = kit::KeyOf(key_);
  }
  void TearDown() override {
    if (key_) ksp().FreeKey(provider_, key_);
    if (provider_) ksp().FreeProvider(provider_);
    kit::ProviderTest::TearDown();
  }
  void CachePin() { kit::ProviderTest::CachePin(provider_, key_); }

  SECURITY_STATUS Sign(Bytes hash, DWORD flags = 0) {
    hash_ = std::move(hash);
    length_ = 0xEEEEEEEE;
    signature_.assign(128, 0xEE);
    return ksp().SignHash(provider_, key_, nullptr, hash_.data(), static_cast<DWORD>(hash_.size()), signature_.data(),
                          static_cast<DWORD>(signature_.size()), &length_, flags);
  }
  struct Arguments {
    NCRYPT_PROV_HANDLE provider = 0;
    NCRYPT_KEY_HANDLE key = 0;
    const void* padding = nullptr;
    const void* hash = nullptr;
    DWORD hashLength = 0;
    const void* signature = nullptr;
    DWORD signatureLength = 0;
    const void* result = nullptr;
    DWORD flags = 0;
  };
  static std::vector<Line> SignLines(const Arguments& a, const std::vector<Line>& body, LONG status) {
    std::vector<Line> lines{Hex32("hProvider    : ", a.provider),
                            Hex32("hKey         : ", a.key),
                            Pointer32("pPaddingInfo : ", a.padding),
                            Pointer32("pbHashValue  : ", a.hash),
                            Hex32("cbHashValue  : ", a.hashLength),
                            Pointer32("pbSignature  : ", a.signature),
                            Hex32("cbSignature  : ", a.signatureLength),
                            Pointer32("pcbResult    : ", a.result),
                            Hex32("dwFlags      : ", a.flags)};
    lines.insert(lines.end(), body.begin(), body.end());
    return Frame("KELDAKSPSignHash", lines, status);
  }
  // The arguments of Sign().
  Arguments Given(DWORD flags = 0) const {
    return {provider_,         key_, nullptr,  hash_.data(), static_cast<DWORD>(hash_.size()),
            signature_.data(), 128,  &length_, flags};
  }
  std::string Serial() const {
    std::string serial = token().SlotAt(0).serial;
    serial.resize(16, ' ');
    return serial;
  }
  // What a login with a cached PIN writes.
  std::vector<Line> CachedLogin(int entryInstance) const {
    const std::vector<Line> lookup{PinManager("PIN Manager - Retrieving PIN from PIN Cache"),
                                   PinManager(Dump("pbSerial: ", Ascii(Serial()))), Number("cbSerial: ", 16),
                                   PinManager("PIN Manager - Iterating through PIN caches")};
    std::vector<Line> lines{Pin("Retrieving token info"), Pin("Entering critical section"), Pin("Checking PIN cache")};
    lines.insert(lines.end(), lookup.begin(), lookup.end());
    lines.push_back(PinManager("PIN Manager - PIN buffer is NULL, returning PIN length"));
    lines.emplace_back(entryInstance, "Decrypt - Output buffer is NULL. Returning data length");
    lines.push_back(Pin("Retrieving PIN from cache"));
    lines.insert(lines.end(), lookup.begin(), lookup.end());
    lines.emplace_back(entryInstance, "Decrypt - Output buffer is NULL. Returning data length");
    for (const char* text : {"Initiating cleanup routine - Login", "Deleting Login Dialog",
                             "Securely clearing PIN buffer", "Pin buffer cleared", "Cleanup routine success - Login"}) {
      lines.push_back(Pin(text));
    }
    return lines;
  }
  // The instance of the newest PIN cache entry: it is the one that speaks in the lines of a cached login.
  static int EntryInstance(const std::vector<Line>& lines) {
    for (const Line& line : lines) {
      if (line.text == "Decrypt - Output buffer is NULL. Returning data length") return line.instance;
    }
    return kit::kNoInstance;
  }
  std::vector<std::string> SignCalls(const Bytes& block, const std::string& out) const {
    return {"C_GetTokenInfo(slot=11)", "VendorLogin(session=0x51, user=1, pin=31323334)",
            "C_SignInit(session=0x51, CKM_RSA_PKCS[NULL,0], key=0x102)",
            "C_Sign(session=0x51, data=" + fake::HexOf(block) + ", out=" + out + ")"};
  }
  // The lines of an entry between its arguments and its exit line.
  static std::vector<Line> Body(std::size_t arguments) {
    std::vector<Line> all = kit::Log::Get().Take();
    if (all.size() < arguments + 4) return all;
    return std::vector<Line>(all.begin() + static_cast<std::ptrdiff_t>(arguments) + 2, all.end() - 2);
  }

  fake::KeyPair pair_;
  NCRYPT_PROV_HANDLE provider_ = 0;
  NCRYPT_KEY_HANDLE key_ = 0;
  kit::KeyRecord* record_ = nullptr;
  Bytes hash_;
  Bytes signature_;
  DWORD length_ = 0;
};

// --- signing

TEST_F(SigningTest, SignsAHashWithACachedPin) {
  CachePin();
  const Bytes hash = Counting(20);
  EXPECT_EQ(Sign(hash), 0);
  EXPECT_EQ(length_, 128u);
  EXPECT_EQ(signature_, token().Signature(pair_.privateKey, Joined(kSha1, hash)));

  const std::vector<Line> lines = kit::Log::Get().Take();
  const int entry = EntryInstance(lines);
  EXPECT_GT(entry, int{kit::kPinLog}) << "each entry of the PIN cache has a log instance of its own";
  std::vector<Line> body = CachedLogin(entry);
  body.emplace_back(Dump("Hash\t\t: ", hash));
  body.emplace_back(Dump("Signature\t\t: ", signature_));
  EXPECT_TRUE(kit::SameLines(SignLines(Given(), body, 0), lines));
  ExpectCalls(SignCalls(Joined(kSha1, hash), "PTR, room=128"));
  // The token object of the signature has a log instance of its own, which reads the switch; nothing else is read.
  EXPECT_EQ(kit::Registry::Get().TakeReads(), (std::vector<std::wstring>{L"KSPLOG", L"KSPDIR"}));
}

TEST_F(SigningTest, MakesNoOtherPlatformCall) {
  CachePin();
  kit::Imports::Get().StartRecording();
  EXPECT_EQ(Sign(Counting(20)), 0);
  const std::vector<kit::ImportCall> calls = kit::Imports::Get().StopRecording();
  // Memory, text and the log's own work on the one hand, PIN protection, lock and dialog object on the other.
  const std::vector<std::string> allowed{"OutputDebugStringA",
                                         "OutputDebugStringW",
                                         "RegGetValueW",
                                         "malloc",
                                         "free",
                                         "memcpy",
                                         "memset",
                                         "memcmp",
                                         "memmove",
                                         "strlen",
                                         "wcslen",
                                         "_errno",
                                         "GetCurrentThreadId",
                                         "EnterCriticalSection",
                                         "LeaveCriticalSection",
                                         "VirtualLock",
                                         "VirtualUnlock",
                                         "CryptUnprotectMemory",
                                         "CryptAcquireContextW",
                                         "CryptGenRandom",
                                         "CryptReleaseContext",
                                         "GetLastError",
                                         "SetLastError",
                                         "_wfsopen",
                                         "fputs",
                                         "fputc",
                                         "fflush",
                                         "fclose",
                                         "fwrite",
                                         "sprintf",
                                         "vsnprintf",
                                         "_vsnprintf"};
  for (const kit::ImportCall& call : calls) {
    EXPECT_NE(std::find(allowed.begin(), allowed.end(), call.name), allowed.end()) << call.name;
    EXPECT_EQ(call.thread, GetCurrentThreadId());
  }
  const auto count = [&](const char* name) {
    return std::count_if(calls.begin(), calls.end(), [&](const kit::ImportCall& call) { return call.name == name; });
  };
  EXPECT_EQ(count("EnterCriticalSection"), 1);
  EXPECT_EQ(count("LeaveCriticalSection"), 1);
  EXPECT_EQ(count("CryptUnprotectMemory"), 3) << "length, length, PIN";
  EXPECT_EQ(count("VirtualUnlock"), 2);
  EXPECT_EQ(count("VirtualLock"), 1) << "the length query leaves the block unlocked";
  EXPECT_EQ(count("CryptGenRandom"), 32) << "the mask of the dialog that is made and not shown";
  EXPECT_EQ(count("RegGetValueW"), 2);
}

TEST_F(SigningTest, AsksForThePinOnceAndRemembersIt) {
  kit::DialogRobot robot({[](kit::Dialog& dialog) {
    dialog.Type(kit::kPinField, L"1234");
    dialog.PressOk();
  }});
  const Bytes hash = Counting(32);
  EXPECT_EQ(Sign(hash), 0);
  EXPECT_EQ(signature_, token().Signature(pair_.privateKey, Joined(kSha256, hash)));
  EXPECT_EQ(Sign(hash), 0);
  EXPECT_EQ(robot.Finish(), 1u);
  EXPECT_EQ(token().Count("VendorLogin"), 2u);
}

struct Form {
  std::size_t length;
  const Bytes* prefix;  // nullptr: signed as it is
};

void PrintTo(const Form& form, std::ostream* out) {
  *out << form.length << " bytes";
}

class AcceptedLengths : public SigningTest, public ::testing::WithParamInterface<Form> {};

TEST_P(AcceptedLengths, AreSignedWithTheirPrefix) {
  CachePin();
  const Bytes input = Counting(GetParam().length);
  const Bytes block = GetParam().prefix ? Joined(*GetParam().prefix, input) : input;
  EXPECT_EQ(Sign(input), 0);
  EXPECT_EQ(signature_, token().Signature(pair_.privateKey, block));
  ExpectCalls(SignCalls(block, "PTR, room=128"));
}

INSTANTIATE_TEST_SUITE_P(All, AcceptedLengths,
                         ::testing::Values(Form{16, &kMd5}, Form{20, &kSha1}, Form{32, &kSha256}, Form{64, &kSha512},
                                           Form{34, nullptr}, Form{35, nullptr}, Form{51, nullptr}, Form{83, nullptr},
                                           Form{36, nullptr}),
                         [](const ::testing::TestParamInfo<Form>& given) {
                           return "Bytes" + std::to_string(given.param.length);
                         });

TEST_F(SigningTest, EveryOtherLengthIsRefusedAfterTheLogin) {
  CachePin();
  const std::vector<DWORD> accepted{16, 20, 32, 34, 35, 36, 51, 64, 83};
  Bytes input(200, 0x11);
  std::vector<DWORD> lengths;
  for (DWORD length = 0; length <= 100; ++length)
    lengths.push_back(length);
  for (const DWORD length : {DWORD{128}, DWORD{256}, DWORD{0x7FFFFFFF}, DWORD{0x80000000}, DWORD{0xFFFFFFFF}}) {
    lengths.push_back(length);
  }
  for (const DWORD length : lengths) {
    if (std::find(accepted.begin(), accepted.end(), length) != accepted.end()) continue;
    token().ClearCalls();
    BYTE signature[128];
    length_ = 0;
    // The hash dump of the log reads at most 500 bytes; lengths beyond the buffer are tried as size queries below.
    if (length > input.size()) continue;
    EXPECT_EQ(ksp().SignHash(provider_, key_, nullptr, input.data(), length, signature, 128, &length_, 0),
              NTE_INVALID_PARAMETER)
        << length;
    EXPECT_EQ(length_, 128u) << "the room given is handed back whatever the status";
    ExpectCalls({"C_GetTokenInfo(slot=11)", "VendorLogin(session=0x51, user=1, pin=31323334)"});
  }
}

TEST_F(SigningTest, Sha384IsRefusedAfterTheLogin) {
  CachePin();
  EXPECT_EQ(Sign(Counting(48)), NTE_INVALID_PARAMETER);
  const std::vector<Line> lines = kit::Log::Get().Take();
  std::vector<Line> body = CachedLogin(EntryInstance(lines));
  body.emplace_back(Dump("Hash\t\t: ", Counting(48)));
  body.emplace_back("Signing failed. Check PKCS logs for detailed information");
  EXPECT_TRUE(kit::SameLines(SignLines(Given(), body, NTE_INVALID_PARAMETER), lines));
  EXPECT_EQ(length_, 128u);
}

TEST_F(SigningTest, LengthsAtTheMaximumDoNoHarm) {
  CachePin();
  Bytes input(600, 0x11);  // as much as the log's dump may read
  for (const DWORD length : {DWORD{84}, DWORD{500}, DWORD{600}, DWORD{0x7FFFFFFF}, DWORD{0xFFFFFFFF}}) {
    DWORD result = 0;
    EXPECT_EQ(ksp().SignHash(provider_, key_, nullptr, input.data(), length, nullptr, 0, &result, 0),
              NTE_INVALID_PARAMETER);
  }
  BYTE signature[128];
  DWORD result = 0;
  // More room than there is: the module writes its 128 bytes.
  EXPECT_EQ(ksp().SignHash(provider_, key_, nullptr, input.data(), 20, signature, 0xFFFFFFFF, &result, 0), 0);
  EXPECT_EQ(result, 128u);
}

TEST_F(SigningTest, DigestInfoGivesTheSignatureOfItsHash) {
  CachePin();
  const Bytes hash = Counting(20);
  EXPECT_EQ(Sign(hash), 0);
  const Bytes first = signature_;
  EXPECT_EQ(Sign(Joined(kSha1, hash)), 0);
  EXPECT_EQ(signature_, first);
}

TEST_F(SigningTest, SizeQueryRunsTheWholeSequence) {
  CachePin();
  const Bytes hash = Counting(20);
  hash_ = hash;
  length_ = 0xEEEEEEEE;
  EXPECT_EQ(ksp().SignHash(provider_, key_, nullptr, hash_.data(), 20, nullptr, 77, &length_, 0), 0);
  EXPECT_EQ(length_, 128u);
  const std::vector<Line> lines = kit::Log::Get().Take();
  std::vector<Line> body = CachedLogin(EntryInstance(lines));
  body.emplace_back(Dump("Hash\t\t: ", hash));
  body.push_back(Number("pbSignature is NULL. Signature length: ", 128));
  EXPECT_TRUE(kit::SameLines(SignLines({provider_, key_, nullptr, hash_.data(), 20, nullptr, 77, &length_, 0}, body, 0),
                             lines));
  ExpectCalls(SignCalls(Joined(kSha1, hash), "NULL"));
}

TEST_F(SigningTest, ShortBuffer) {
  CachePin();
  hash_ = Counting(20);
  length_ = 0;
  BYTE room[127];
  EXPECT_EQ(ksp().SignHash(provider_, key_, nullptr, hash_.data(), 20, room, 127, &length_, 0), NTE_BUFFER_TOO_SMALL);
  EXPECT_EQ(length_, 128u) << "what the module left in the length";
  std::vector<Line> body = Body(9);
  EXPECT_EQ(body.back(), Line("Signing failed. Check PKCS logs for detailed information"));
  EXPECT_EQ(ksp().SignHash(provider_, key_, nullptr, hash_.data(), 20, room, 0, &length_, 0), NTE_BUFFER_TOO_SMALL);
}

TEST_F(SigningTest, PaddingInfoIsLoggedAndIgnored) {
  CachePin();
  BCRYPT_PKCS1_PADDING_INFO info{L"SHA256"};
  hash_ = Counting(20);
  signature_.assign(128, 0);
  EXPECT_EQ(ksp().SignHash(provider_, key_, &info, hash_.data(), 20, signature_.data(), 128, &length_, kPkcs1), 0);
  EXPECT_EQ(signature_, token().Signature(pair_.privateKey, Joined(kSha1, hash_)));
  const std::vector<Line> lines = kit::Log::Get().Take();
  EXPECT_EQ(lines.at(4), Line(Pointer32("pPaddingInfo : ", &info)));
}

TEST_F(SigningTest, AcceptedFlags) {
  CachePin();
  for (const DWORD flags : {DWORD{0}, kPkcs1, kSilent, kPkcs1 | kSilent})
    EXPECT_EQ(Sign(Counting(20), flags), 0);
}

TEST_F(SigningTest, SilentFlagDoesNotSuppressTheDialog) {
  kit::DialogRobot robot;  // cancels
  EXPECT_EQ(Sign(Counting(20), kSilent), SECURITY_STATUS(SCARD_W_CANCELLED_BY_USER));
  EXPECT_EQ(robot.Finish(), 1u);
  const std::vector<Line> body = Body(9);
  EXPECT_EQ(body.back(), Line("Failed to login. Operation aborted."));
  EXPECT_EQ(length_, 0xEEEEEEEEu) << "untouched before the signing step";
}

TEST_F(SigningTest, FlagsBitByBit) {
  CachePin();
  for (int bit = 0; bit < 32; ++bit) {
    const DWORD flag = DWORD{1} << bit;
    Forget();
    if (flag == kPkcs1 || flag == kSilent) continue;
    const LONG expected = flag == kPss ? NTE_NOT_SUPPORTED : NTE_BAD_FLAGS;
    EXPECT_EQ(Sign(Counting(20), flag), expected) << "bit " << bit;
    EXPECT_EQ(Body(9), std::vector<Line>{flag == kPss ? kNoPss : kBadFlags});
    ExpectCalls({});
  }
}

TEST_F(SigningTest, SignChecksInOrder) {
  // Everything is wrong at first; each check that is satisfied uncovers the next one.
  BYTE hash[20] = {};
  length_ = 0xEEEEEEEE;
  record_->dwKeyUsagePolicy = 1;
  record_->fFinished = 0;
  const DWORD bad = 0x80000000 | kPss;
  const auto sign = [&](NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, PBYTE value, DWORD* result, DWORD flags) {
    return ksp().SignHash(provider, key, nullptr, value, 20, nullptr, 0, result, flags);
  };
  EXPECT_EQ(sign(0, 0, nullptr, nullptr, bad), NTE_INVALID_HANDLE);
  ExpectLines(SignLines({0, 0, nullptr, nullptr, 20, nullptr, 0, nullptr, bad},
                        {"NTE_INVALID_HANDLE: pProvider is NULL"}, NTE_INVALID_HANDLE));
  EXPECT_EQ(sign(provider_, 0, nullptr, nullptr, bad), NTE_INVALID_HANDLE);
  EXPECT_EQ(Body(9), std::vector<Line>{"NTE_INVALID_HANDLE: pKey is NULL"});
  EXPECT_EQ(sign(provider_, key_, nullptr, nullptr, bad), NTE_INVALID_PARAMETER);
  EXPECT_EQ(Body(9), std::vector<Line>{"NTE_INVALID_PARAMETER: pbHashValue is NULL"});
  EXPECT_EQ(sign(provider_, key_, hash, nullptr, bad), NTE_INVALID_PARAMETER);
  EXPECT_EQ(Body(9), std::vector<Line>{"NTE_INVALID_PARAMETER: pcbResult is NULL"});
  EXPECT_EQ(sign(provider_, key_, hash, &length_, bad), NTE_BAD_FLAGS);
  EXPECT_EQ(Body(9), std::vector<Line>{kBadFlags});
  EXPECT_EQ(sign(provider_, key_, hash, &length_, kPss | kPkcs1), NTE_NOT_SUPPORTED);
  EXPECT_EQ(Body(9), std::vector<Line>{kNoPss});
  EXPECT_EQ(sign(provider_, key_, hash, &length_, 0), NTE_PERM);
  EXPECT_EQ(Body(9), std::vector<Line>{"NTE_PERM: The key usage policy does not allow signing"});
  record_->dwKeyUsagePolicy = 2;
  EXPECT_EQ(sign(provider_, key_, hash, &length_, 0), NTE_BAD_KEY_STATE);
  EXPECT_EQ(Body(9), std::vector<Line>{"NTE_BAD_KEY_STATE: The specified key is not yet finalized"});
  ExpectCalls({});
  EXPECT_EQ(length_, 0xEEEEEEEEu) << "no refusal writes the length";
  record_->fFinished = 1;
  CachePin();
  EXPECT_EQ(sign(provider_, key_, hash, &length_, 0), 0);
}

TEST_F(SigningTest, HandlesAreTestedBySizeAndMark) {
  const NCRYPT_PROV_HANDLE provider = provider_;
  const NCRYPT_KEY_HANDLE key = key_;
  for (kit::ProviderRecord& broken : BrokenRecords(*kit::RecordOf(provider))) {
    provider_ = reinterpret_cast<NCRYPT_PROV_HANDLE>(&broken);
    EXPECT_EQ(Sign(Counting(20)), NTE_INVALID_HANDLE);
    ExpectLines(SignLines(Given(), {"NTE_INVALID_HANDLE: pProvider is NULL"}, NTE_INVALID_HANDLE));
  }
  provider_ = provider;
  for (kit::KeyRecord& broken : BrokenRecords(*kit::KeyOf(key))) {
    key_ = reinterpret_cast<NCRYPT_KEY_HANDLE>(&broken);
    EXPECT_EQ(Sign(Counting(20)), NTE_INVALID_HANDLE);
    ExpectLines(SignLines(Given(), {"NTE_INVALID_HANDLE: pKey is NULL"}, NTE_INVALID_HANDLE));
  }
  key_ = key;
  ExpectCalls({});
}

TEST_F(SigningTest, FailingLoginIsReturned) {
  token().FailAlways("C_GetTokenInfo", CKR_DEVICE_ERROR);
  EXPECT_EQ(Sign(Counting(20)), NTE_INTERNAL_ERROR);
  ExpectLines(SignLines(
      Given(),
      {Pin("Retrieving token info"), Pin("\tNTE_INTERNAL_ERROR: Failed to retrieve token info"),
       Pin("Initiating cleanup routine - Login"), Pin("Securely clearing PIN buffer"), Pin("Pin buffer cleared"),
       Pin("Cleanup routine success - Login"), "Failed to login. Operation aborted."},
      NTE_INTERNAL_ERROR));
  ExpectCalls({"C_GetTokenInfo(slot=11)"});
}

TEST_F(SigningTest, FailingSignInitIsAnInternalError) {
  CachePin();
  for (const CK_RV code : {CK_RV{0x68}, CK_RV{0x82}, CK_RV{0xB3}, CK_RV{0x101}, CK_RV{0x150}, CK_RV{0x80000000}}) {
    token().Fail("C_SignInit", code);
    EXPECT_EQ(Sign(Counting(20)), NTE_INTERNAL_ERROR);
    EXPECT_EQ(token().Count("C_Sign"), 0u);
    EXPECT_EQ(length_, 128u);
  }
}

TEST_F(SigningTest, FailingSign) {
  CachePin();
  for (const CK_RV code : {CK_RV{1}, CK_RV{0x30}, CK_RV{0x68}, CK_RV{0x101}, CK_RV{0x14F}, CK_RV{0x151}}) {
    token().Fail("C_Sign", code);
    EXPECT_EQ(Sign(Counting(20)), NTE_INTERNAL_ERROR);
    EXPECT_EQ(length_, 128u);
  }
  token().Fail("C_Sign", 0x150);
  EXPECT_EQ(Sign(Counting(20)), NTE_BUFFER_TOO_SMALL);
}

TEST_F(SigningTest, KeyWithoutPrivateObject) {
  CachePin();
  record_->hPrivateKeyObject = 0;
  EXPECT_EQ(Sign(Counting(20)), NTE_INVALID_PARAMETER);
  EXPECT_EQ(token().Count("C_SignInit"), 0u);
}

TEST_F(SigningTest, FailedSizeQueryLogsTheLengthThatItFound) {
  CachePin();
  token().Fail("C_Sign", CKR_DEVICE_ERROR);
  hash_ = Counting(20);
  length_ = 5;
  EXPECT_EQ(ksp().SignHash(provider_, key_, nullptr, hash_.data(), 20, nullptr, 0, &length_, 0), NTE_INTERNAL_ERROR);
  EXPECT_EQ(length_, 5u);
  const std::vector<Line> body = Body(9);
  ASSERT_GE(body.size(), 2u);
  EXPECT_EQ(body[body.size() - 2], Line("Signing failed. Check PKCS logs for detailed information"));
  EXPECT_EQ(body.back(), Number("pbSignature is NULL. Signature length: ", 5));
}

TEST_F(SigningTest, DataBufferStaysAndHoldsTheDigestInfo) {
  CachePin();
  kit::MemoryWatch watch;
  const Bytes hash = Counting(20);
  EXPECT_EQ(Sign(hash), 0);
  std::size_t kept = 0;
  for (const auto& [address, size] : watch.Live()) {
    if (size < 35) continue;
    const auto* bytes = static_cast<const BYTE*>(address);
    kept += Bytes(bytes, bytes + 35) == Joined(kSha1, hash);
  }
  EXPECT_EQ(kept, 1u) << "the signed data, which is public, is not released";
}

TEST_F(SigningTest, NothingElseStaysBehind) {
  CachePin();
  const auto left = [&](std::size_t length) {
    kit::MemoryWatch watch;
    Sign(Counting(length));
    std::vector<std::size_t> sizes;
    for (const auto& [address, size] : watch.Live())
      sizes.push_back(size);
    return sizes;
  };
  const std::vector<std::size_t> data{35};
  EXPECT_EQ(left(20), data);
  EXPECT_EQ(left(48), std::vector<std::size_t>{}) << "refused before there is data";
  token().Fail("C_SignInit", CKR_DEVICE_ERROR);
  EXPECT_EQ(left(20), data);
  token().Fail("C_Sign", CKR_DEVICE_ERROR);
  EXPECT_EQ(left(20), data);
  record_->hPrivateKeyObject = 0;
  EXPECT_EQ(left(20), std::vector<std::size_t>{});
}

// The module's word for the length is handed on; what is shown of the signature ends with the caller's buffer.
TEST_F(SigningTest, LongerSignatureThanThereIsRoomFor) {
  CachePin();
  const fake::ListGuard guard;
  static CK_C_Sign original;
  original = token().List()->standard.C_Sign;
  token().List()->standard.C_Sign = [](CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG cbData, CK_BYTE* out,
                                       CK_ULONG* length) -> CK_RV {
    const CK_RV result = original(session, data, cbData, out, length);
    *length = 400;
    return result;
  };
  EXPECT_EQ(Sign(Counting(20)), 0);
  EXPECT_EQ(length_, 400u);
  EXPECT_EQ(Body(9).back(), Line(Dump("Signature\t\t: ", signature_)));
}

TEST_F(SigningTest, ShownSignatureHasTheModulesLength) {
  CachePin();
  signature_.assign(200, 0xEE);
  hash_ = Counting(20);
  EXPECT_EQ(ksp().SignHash(provider_, key_, nullptr, hash_.data(), 20, signature_.data(), 200, &length_, 0), 0);
  EXPECT_EQ(length_, 128u);
  EXPECT_EQ(Bytes(signature_.begin() + 128, signature_.end()), Bytes(72, 0xEE));
  signature_.resize(128);
  EXPECT_EQ(Body(9).back(), Line(Dump("Signature\t\t: ", signature_)));
}

TEST_F(SigningTest, AnyAllocationMayFail) {
  CachePin();
  for (std::size_t nth = 1; nth < 400; ++nth) {
    kit::MemoryWatch watch;
    watch.FailAllocation(nth);
    const SECURITY_STATUS status = Sign(Counting(20));
    const bool reached = watch.Allocations() >= nth;
    watch.StopFailing();
    EXPECT_TRUE(status == 0 || status == NTE_NO_MEMORY || status == NTE_INTERNAL_ERROR || status == NTE_NOT_FOUND)
        << nth << ": " << std::hex << status;
    EXPECT_FALSE(watch.FreedContains("1234")) << nth;
    if (!reached) break;
    ASSERT_LT(nth, 399u);
  }
  EXPECT_EQ(Sign(Counting(20)), 0) << "nothing is left locked or broken";
}

TEST_F(SigningTest, PinIsInNoFreedBlockAndNoLine) {
  kit::MemoryWatch watch;
  token().SlotAt(0).pin = "73519264";
  kit::DialogRobot robot({[](kit::Dialog& dialog) {
    dialog.Type(kit::kPinField, L"73519264");
    EXPECT_EQ(dialog.text(kit::kPinField), L"********");
    dialog.PressOk();
  }});
  EXPECT_EQ(Sign(Counting(20)), 0);
  EXPECT_EQ(Sign(Counting(20)), 0);
  EXPECT_EQ(robot.Finish(), 1u);
  EXPECT_FALSE(watch.FreedContains("73519264"));
  EXPECT_FALSE(watch.FreedContainsWide("73519264"));
  for (const Line& line : kit::Log::Get().Take())
    EXPECT_EQ(line.text.find("73519264"), std::string::npos);
}

// --- verification

class VerifyingTest : public SigningTest {
 protected:
  SECURITY_STATUS Verify(Bytes data, Bytes signature, DWORD flags = 0) {
    hash_ = std::move(data);
    signature_ = std::move(signature);
    return ksp().VerifySignature(provider_, key_, nullptr, hash_.data(), static_cast<DWORD>(hash_.size()),
                                 signature_.data(), static_cast<DWORD>(signature_.size()), flags);
  }
  // This entry's exit line has no colon and no blank before the status.
  static std::vector<Line> VerifyLines(const Arguments& a, const std::vector<Line>& body, LONG status) {
    std::vector<Line> lines{kBanner,
                            "KELDAKSPVerifySignature - Entry",
                            Hex32("hProvider    : ", a.provider),
                            Hex32("hKey         : ", a.key),
                            Pointer32("pPaddingInfo : ", a.padding),
                            Pointer32("pbHashValue  : ", a.hash),
                            Hex32("cbHashValue  : ", a.hashLength),
                            Pointer32("pbSignature  : ", a.signature),
                            Hex32("cbSignature  : ", a.signatureLength),
                            Hex32("dwFlags      : ", a.flags)};
    lines.insert(lines.end(), body.begin(), body.end());
    lines.emplace_back(Hex32("KELDAKSPVerifySignature - Exit", static_cast<ULONG>(status)));
    lines.emplace_back(kClosingBanner);
    return lines;
  }
};

TEST_F(VerifyingTest, VerifiesTheBlockAsPassed) {
  CachePin();
  const Bytes info = Joined(kSha1, Counting(20));
  const Bytes signature = token().Signature(pair_.privateKey, info);
  EXPECT_EQ(Verify(info, signature), 0);
  const std::vector<Line> lines = kit::Log::Get().Take();
  EXPECT_TRUE(
      kit::SameLines(VerifyLines({provider_, key_, nullptr, hash_.data(), 35, signature_.data(), 128, nullptr, 0},
                                 CachedLogin(EntryInstance(lines)), 0),
                     lines));
  ExpectCalls({"C_GetTokenInfo(slot=11)", "VendorLogin(session=0x51, user=1, pin=31323334)",
               "C_VerifyInit(session=0x51, CKM_RSA_PKCS[NULL,0], key=0x101)",
               "C_Verify(session=0x51, data=" + fake::HexOf(info) + ", signature=" + fake::HexOf(signature) + ")"});
  EXPECT_EQ(kit::Registry::Get().TakeReads(), (std::vector<std::wstring>{L"KSPLOG", L"KSPDIR"}));
}

TEST_F(VerifyingTest, SignatureOverABareHashNeedsTheDigestInfo) {
  CachePin();
  const Bytes hash = Counting(32);
  EXPECT_EQ(Sign(hash), 0);
  const Bytes signature = signature_;
  EXPECT_EQ(Verify(hash, signature), NTE_FAIL) << "signing wraps, verification does not";
  EXPECT_EQ(Verify(Joined(kSha256, hash), signature), 0);
}

TEST_F(VerifyingTest, WrongSignature) {
  CachePin();
  const Bytes info = Joined(kSha1, Counting(20));
  Bytes signature = token().Signature(pair_.privateKey, info);
  signature[5] ^= 1;
  EXPECT_EQ(Verify(info, signature), NTE_FAIL);
  const std::vector<Line> lines = kit::Log::Get().Take();
  std::vector<Line> body = CachedLogin(EntryInstance(lines));
  body.emplace_back("Verify failed. Check PKCS logs for detailed information");
  EXPECT_TRUE(kit::SameLines(
      VerifyLines({provider_, key_, nullptr, hash_.data(), 35, signature_.data(), 128, nullptr, 0}, body, NTE_FAIL),
      lines));
}

TEST_F(VerifyingTest, PaddingInfoIsLoggedAndIgnored) {
  CachePin();
  hash_ = Joined(kSha1, Counting(20));
  signature_ = token().Signature(pair_.privateKey, hash_);
  BCRYPT_PKCS1_PADDING_INFO info{L"SHA256"};
  EXPECT_EQ(ksp().VerifySignature(provider_, key_, &info, hash_.data(), 35, signature_.data(), 128, kPkcs1 | kSilent),
            0);
  const std::vector<Line> lines = kit::Log::Get().Take();
  EXPECT_TRUE(kit::SameLines(
      VerifyLines({provider_, key_, &info, hash_.data(), 35, signature_.data(), 128, nullptr, kPkcs1 | kSilent},
                  CachedLogin(EntryInstance(lines)), 0),
      lines));
}

TEST_F(VerifyingTest, FlagsBitByBit) {
  CachePin();
  const Bytes info = Joined(kSha1, Counting(20));
  const Bytes signature = token().Signature(pair_.privateKey, info);
  for (int bit = 0; bit < 32; ++bit) {
    const DWORD flag = DWORD{1} << bit;
    Forget();
    if (flag == kPkcs1 || flag == kSilent) {
      EXPECT_EQ(Verify(info, signature, flag), 0);
      continue;
    }
    EXPECT_EQ(Verify(info, signature, flag), flag == kPss ? NTE_NOT_SUPPORTED : NTE_BAD_FLAGS) << "bit " << bit;
    EXPECT_EQ(Body(8), std::vector<Line>{flag == kPss ? kNoPss : kBadFlags});
    ExpectCalls({});
  }
}

TEST_F(VerifyingTest, RecordsThatAreNoneAreRefused) {
  const NCRYPT_PROV_HANDLE provider = provider_;
  const NCRYPT_KEY_HANDLE key = key_;
  for (kit::ProviderRecord& broken : BrokenRecords(*kit::RecordOf(provider))) {
    provider_ = reinterpret_cast<NCRYPT_PROV_HANDLE>(&broken);
    EXPECT_EQ(Verify(Counting(35), Bytes(128)), NTE_INVALID_HANDLE);
    EXPECT_EQ(Body(8), std::vector<Line>{"NTE_INVALID_HANDLE: pProvider is NULL"});
  }
  provider_ = provider;
  for (kit::KeyRecord& broken : BrokenRecords(*kit::KeyOf(key))) {
    key_ = reinterpret_cast<NCRYPT_KEY_HANDLE>(&broken);
    EXPECT_EQ(Verify(Counting(35), Bytes(128)), NTE_INVALID_HANDLE);
    EXPECT_EQ(Body(8), std::vector<Line>{"NTE_INVALID_HANDLE: pKey is NULL"});
  }
  key_ = key;
  ExpectCalls({});
}

TEST_F(VerifyingTest, NothingStaysBehind) {
  CachePin();
  const Bytes info = Joined(kSha1, Counting(20));
  const Bytes signature = token().Signature(pair_.privateKey, info);
  const auto leavesNothing = [&](SECURITY_STATUS expected) {
    kit::MemoryWatch watch;
    EXPECT_EQ(Verify(info, signature), expected);
    EXPECT_TRUE(watch.Live().empty()) << std::hex << expected;
  };
  leavesNothing(0);
  token().Fail("C_Verify", CKR_DEVICE_ERROR);
  leavesNothing(NTE_FAIL);
  token().Fail("C_VerifyInit", CKR_DEVICE_ERROR);
  leavesNothing(NTE_INTERNAL_ERROR);
  record_->hPublicKeyObject = 0;
  leavesNothing(NTE_INVALID_PARAMETER);
}

TEST_F(VerifyingTest, AnyLengthGoesToTheToken) {
  CachePin();
  for (const std::size_t length : {std::size_t{1}, std::size_t{48}, std::size_t{100}}) {
    const Bytes data = Counting(length);
    EXPECT_EQ(Verify(data, token().Signature(pair_.privateKey, data)), 0) << length;
  }
  BYTE hash[1] = {};
  BYTE signature[1] = {};
  EXPECT_EQ(ksp().VerifySignature(provider_, key_, nullptr, hash, 0, signature, 0, 0), NTE_FAIL);
}

TEST_F(VerifyingTest, VerifyChecksInOrder) {
  BYTE hash[20] = {};
  BYTE signature[128] = {};
  record_->fFinished = 0;
  record_->dwKeyUsagePolicy = 0;  // not looked at by verification
  const DWORD bad = 0x80000000 | kPss;
  const auto verify = [&](NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, PBYTE value, PBYTE given, DWORD flags) {
    return ksp().VerifySignature(provider, key, nullptr, value, 20, given, 128, flags);
  };
  EXPECT_EQ(verify(0, 0, nullptr, nullptr, bad), NTE_INVALID_HANDLE);
  ExpectLines(VerifyLines({0, 0, nullptr, nullptr, 20, nullptr, 128, nullptr, bad},
                          {"NTE_INVALID_HANDLE: pProvider is NULL"}, NTE_INVALID_HANDLE));
  EXPECT_EQ(verify(provider_, 0, nullptr, nullptr, bad), NTE_INVALID_HANDLE);
  EXPECT_EQ(Body(8), std::vector<Line>{"NTE_INVALID_HANDLE: pKey is NULL"});
  EXPECT_EQ(verify(provider_, key_, nullptr, nullptr, bad), NTE_INVALID_PARAMETER);
  EXPECT_EQ(Body(8), std::vector<Line>{"NTE_INVALID_PARAMETER: pbHashValue is NULL"});
  EXPECT_EQ(verify(provider_, key_, hash, nullptr, bad), NTE_INVALID_PARAMETER);
  EXPECT_EQ(Body(8), std::vector<Line>{"NTE_INVALID_PARAMETER: pbSignature is NULL"});
  EXPECT_EQ(verify(provider_, key_, hash, signature, bad), NTE_BAD_FLAGS);
  EXPECT_EQ(Body(8), std::vector<Line>{kBadFlags});
  EXPECT_EQ(verify(provider_, key_, hash, signature, kPss), NTE_NOT_SUPPORTED);
  EXPECT_EQ(Body(8), std::vector<Line>{kNoPss});
  EXPECT_EQ(verify(provider_, key_, hash, signature, kSilent | kPkcs1), NTE_BAD_KEY_STATE);
  EXPECT_EQ(Body(8), std::vector<Line>{"NTE_BAD_KEY_STATE: The specified key is not yet finalized"});
  ExpectCalls({});
}

TEST_F(VerifyingTest, NeedsALogin) {
  kit::DialogRobot robot;  // cancels
  EXPECT_EQ(Verify(Counting(35), Bytes(128)), SECURITY_STATUS(SCARD_W_CANCELLED_BY_USER));
  EXPECT_EQ(robot.Finish(), 1u);
  EXPECT_EQ(Body(8).back(), Line("Failed to login. Operation aborted."));
  EXPECT_EQ(token().Count("C_VerifyInit"), 0u);
}

TEST_F(VerifyingTest, UsagePolicyIsNotAsked) {
  CachePin();
  record_->dwKeyUsagePolicy = 0;
  const Bytes info = Joined(kSha1, Counting(20));
  EXPECT_EQ(Verify(info, token().Signature(pair_.privateKey, info)), 0);
}

TEST_F(VerifyingTest, FailingCalls) {
  CachePin();
  const Bytes info = Joined(kSha1, Counting(20));
  const Bytes signature = token().Signature(pair_.privateKey, info);
  token().Fail("C_VerifyInit", 0x150);
  EXPECT_EQ(Verify(info, signature), NTE_INTERNAL_ERROR);
  EXPECT_EQ(token().Count("C_Verify"), 0u);
  for (const CK_RV code : {CK_RV{1}, CK_RV{0x150}, CK_RV{0xC0}, CK_RV{0x30}}) {
    token().Fail("C_Verify", code);
    EXPECT_EQ(Verify(info, signature), NTE_FAIL);
  }
  record_->hPublicKeyObject = 0;
  EXPECT_EQ(Verify(info, signature), NTE_INVALID_PARAMETER);
}

}  // namespace
