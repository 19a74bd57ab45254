// SignHash, entry to exit: checks in their order, token calls, log lines, statuses.
#include <algorithm>
#include <string>
#include <vector>

#include "entries/signing.h"

namespace {

using fake::Bytes;
using kit::Counting;
using kit::Dump;
using kit::Frame;
using kit::Hex32;
using kit::Joined;
using kit::kBadFlags;
using kit::kMd5;
using kit::kPkcs1;
using kit::kPss;
using kit::kSha1;
using kit::kSha256;
using kit::kSha512;
using kit::kSilent;
using kit::Line;
using kit::Number;
using kit::Pin;
using kit::Pointer32;

class SignHashTest : public SigningTest {
 protected:
  // What the entry logs of its arguments.
  static std::vector<Line> SignArguments(const Arguments& a) {
    return {Hex32("hProvider    : ", a.provider),
            Hex32("hKey         : ", a.key),
            Pointer32("pPaddingInfo : ", a.padding),
            Pointer32("pbHashValue  : ", a.hash),
            Hex32("cbHashValue  : ", a.hashLength),
            Pointer32("pbSignature  : ", a.signature),
            Hex32("cbSignature  : ", a.signatureLength),
            Pointer32("pcbResult    : ", a.result),
            Hex32("dwFlags      : ", a.flags)};
  }
  static std::vector<Line> SignLines(const Arguments& a, const std::vector<Line>& body, LONG status) {
    return Frame("KELDAKSPSignHash", kit::Join({SignArguments(a), body}), status);
  }
  // The lines between those of the arguments and the exit line.
  static std::vector<Line> SignBody() { return kit::TakeBody(SignArguments({})); }
  // The arguments of Sign().
  Arguments Given(DWORD flags = 0) const {
    return {provider_,         key_, nullptr,  hash_.data(), static_cast<DWORD>(hash_.size()),
            signature_.data(), 128,  &length_, flags};
  }
  std::vector<std::string> SignCalls(const Bytes& block, const std::string& out) const {
    return CallsAfterLogin({"C_SignInit(session=0x51, CKM_RSA_PKCS[NULL,0], key=0x102)",
                            "C_Sign(session=0x51, data=" + fake::HexOf(block) + ", out=" + out + ")"});
  }
};

TEST_F(SignHashTest, SignsAHashWithACachedPin) {
  CachePin();
  const Bytes hash = Counting(20);
  EXPECT_EQ(Sign(hash), 0);
  EXPECT_EQ(length_, 128u);
  EXPECT_EQ(signature_, token().Signature(pair_.privateKey, Joined({kSha1, hash})));

  const std::vector<Line> lines = kit::Log::Get().Take();
  const int entry = EntryInstance(lines);
  EXPECT_GT(entry, int{kit::kPinLog}) << "each entry of the PIN cache has a log instance of its own";
  std::vector<Line> body = CachedLogin(entry);
  body.emplace_back(Dump("Hash\t\t: ", hash));
  body.emplace_back(Dump("Signature\t\t: ", signature_));
  EXPECT_TRUE(kit::SameLines(SignLines(Given(), body, 0), lines));
  ExpectCalls(SignCalls(Joined({kSha1, hash}), "PTR, room=128"));
  // The token object of the signature has a log instance of its own, which reads the switch; nothing else is read.
  EXPECT_EQ(kit::Registry::Get().TakeReads(), (std::vector<std::wstring>{L"KSPLOG", L"KSPDIR"}));
}

TEST_F(SignHashTest, MakesNoOtherPlatformCall) {
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

TEST_F(SignHashTest, AsksForThePinOnceAndRemembersIt) {
  kit::DialogRobot robot({[](kit::Dialog& dialog) {
    dialog.Type(kit::kPinField, L"1234");
    dialog.PressOk();
  }});
  const Bytes hash = Counting(32);
  EXPECT_EQ(Sign(hash), 0);
  EXPECT_EQ(signature_, token().Signature(pair_.privateKey, Joined({kSha256, hash})));
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

class AcceptedLengths : public SignHashTest, public ::testing::WithParamInterface<Form> {};

TEST_P(AcceptedLengths, AreSignedWithTheirPrefix) {
  CachePin();
  const Bytes input = Counting(GetParam().length);
  const Bytes block = GetParam().prefix ? Joined({*GetParam().prefix, input}) : input;
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

TEST_F(SignHashTest, EveryOtherLengthIsRefusedAfterTheLogin) {
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
    ExpectCalls(CallsAfterLogin());
  }
}

TEST_F(SignHashTest, Sha384IsRefusedAfterTheLogin) {
  CachePin();
  EXPECT_EQ(Sign(Counting(48)), NTE_INVALID_PARAMETER);
  const std::vector<Line> lines = kit::Log::Get().Take();
  std::vector<Line> body = CachedLogin(EntryInstance(lines));
  body.emplace_back(Dump("Hash\t\t: ", Counting(48)));
  body.emplace_back("Signing failed. Check PKCS logs for detailed information");
  EXPECT_TRUE(kit::SameLines(SignLines(Given(), body, NTE_INVALID_PARAMETER), lines));
  EXPECT_EQ(length_, 128u);
}

TEST_F(SignHashTest, LengthsAtTheMaximumDoNoHarm) {
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

TEST_F(SignHashTest, DigestInfoGivesTheSignatureOfItsHash) {
  CachePin();
  const Bytes hash = Counting(20);
  EXPECT_EQ(Sign(hash), 0);
  const Bytes first = signature_;
  EXPECT_EQ(Sign(Joined({kSha1, hash})), 0);
  EXPECT_EQ(signature_, first);
}

TEST_F(SignHashTest, SizeQueryRunsTheWholeSequence) {
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
  ExpectCalls(SignCalls(Joined({kSha1, hash}), "NULL"));
}

TEST_F(SignHashTest, ShortBuffer) {
  CachePin();
  hash_ = Counting(20);
  length_ = 0;
  BYTE room[127];
  EXPECT_EQ(ksp().SignHash(provider_, key_, nullptr, hash_.data(), 20, room, 127, &length_, 0), NTE_BUFFER_TOO_SMALL);
  EXPECT_EQ(length_, 128u) << "what the module left in the length";
  std::vector<Line> body = SignBody();
  EXPECT_EQ(body.back(), Line("Signing failed. Check PKCS logs for detailed information"));
  EXPECT_EQ(ksp().SignHash(provider_, key_, nullptr, hash_.data(), 20, room, 0, &length_, 0), NTE_BUFFER_TOO_SMALL);
}

TEST_F(SignHashTest, PaddingInfoIsLoggedAndIgnored) {
  CachePin();
  BCRYPT_PKCS1_PADDING_INFO info{L"SHA256"};
  hash_ = Counting(20);
  signature_.assign(128, 0);
  EXPECT_EQ(ksp().SignHash(provider_, key_, &info, hash_.data(), 20, signature_.data(), 128, &length_, kPkcs1), 0);
  EXPECT_EQ(signature_, token().Signature(pair_.privateKey, Joined({kSha1, hash_})));
  const std::vector<Line> lines = kit::Log::Get().Take();
  EXPECT_EQ(lines.at(4), Line(Pointer32("pPaddingInfo : ", &info)));
}

TEST_F(SignHashTest, AcceptedFlags) {
  CachePin();
  for (const DWORD flags : {DWORD{0}, kPkcs1, kSilent, kPkcs1 | kSilent})
    EXPECT_EQ(Sign(Counting(20), flags), 0);
}

TEST_F(SignHashTest, SilentFlagDoesNotSuppressTheDialog) {
  kit::DialogRobot robot;  // cancels
  EXPECT_EQ(Sign(Counting(20), kSilent), SECURITY_STATUS(SCARD_W_CANCELLED_BY_USER));
  EXPECT_EQ(robot.Finish(), 1u);
  const std::vector<Line> body = SignBody();
  EXPECT_EQ(body.back(), Line("Failed to login. Operation aborted."));
  EXPECT_EQ(length_, 0xEEEEEEEEu) << "untouched before the signing step";
}

TEST_F(SignHashTest, FlagsBitByBit) {
  CachePin();
  for (int bit = 0; bit < 32; ++bit) {
    const DWORD flag = DWORD{1} << bit;
    Forget();
    if (flag == kPkcs1 || flag == kSilent) continue;
    const LONG expected = flag == kPss ? NTE_NOT_SUPPORTED : NTE_BAD_FLAGS;
    EXPECT_EQ(Sign(Counting(20), flag), expected) << "bit " << bit;
    EXPECT_EQ(SignBody(), std::vector<Line>{flag == kPss ? kNoPss : kBadFlags});
    ExpectCalls({});
  }
}

TEST_F(SignHashTest, SignChecksInOrder) {
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
  EXPECT_EQ(SignBody(), std::vector<Line>{"NTE_INVALID_HANDLE: pKey is NULL"});
  EXPECT_EQ(sign(provider_, key_, nullptr, nullptr, bad), NTE_INVALID_PARAMETER);
  EXPECT_EQ(SignBody(), std::vector<Line>{"NTE_INVALID_PARAMETER: pbHashValue is NULL"});
  EXPECT_EQ(sign(provider_, key_, hash, nullptr, bad), NTE_INVALID_PARAMETER);
  EXPECT_EQ(SignBody(), std::vector<Line>{"NTE_INVALID_PARAMETER: pcbResult is NULL"});
  EXPECT_EQ(sign(provider_, key_, hash, &length_, bad), NTE_BAD_FLAGS);
  EXPECT_EQ(SignBody(), std::vector<Line>{kBadFlags});
  EXPECT_EQ(sign(provider_, key_, hash, &length_, kPss | kPkcs1), NTE_NOT_SUPPORTED);
  EXPECT_EQ(SignBody(), std::vector<Line>{kNoPss});
  EXPECT_EQ(sign(provider_, key_, hash, &length_, 0), NTE_PERM);
  EXPECT_EQ(SignBody(), std::vector<Line>{"NTE_PERM: The key usage policy does not allow signing"});
  record_->dwKeyUsagePolicy = 2;
  EXPECT_EQ(sign(provider_, key_, hash, &length_, 0), NTE_BAD_KEY_STATE);
  EXPECT_EQ(SignBody(), std::vector<Line>{"NTE_BAD_KEY_STATE: The specified key is not yet finalized"});
  ExpectCalls({});
  EXPECT_EQ(length_, 0xEEEEEEEEu) << "no refusal writes the length";
  record_->fFinished = 1;
  CachePin();
  EXPECT_EQ(sign(provider_, key_, hash, &length_, 0), 0);
}

TEST_F(SignHashTest, HandlesAreTestedBySizeAndMark) {
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

TEST_F(SignHashTest, FailingLoginIsReturned) {
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

TEST_F(SignHashTest, FailingSignInitIsAnInternalError) {
  CachePin();
  for (const CK_RV code : {CK_RV{0x68}, CK_RV{0x82}, CK_RV{0xB3}, CK_RV{0x101}, CK_RV{0x150}, CK_RV{0x80000000}}) {
    token().Fail("C_SignInit", code);
    EXPECT_EQ(Sign(Counting(20)), NTE_INTERNAL_ERROR);
    EXPECT_EQ(token().Count("C_Sign"), 0u);
    EXPECT_EQ(length_, 128u);
  }
}

TEST_F(SignHashTest, FailingSign) {
  CachePin();
  for (const CK_RV code : {CK_RV{1}, CK_RV{0x30}, CK_RV{0x68}, CK_RV{0x101}, CK_RV{0x14F}, CK_RV{0x151}}) {
    token().Fail("C_Sign", code);
    EXPECT_EQ(Sign(Counting(20)), NTE_INTERNAL_ERROR);
    EXPECT_EQ(length_, 128u);
  }
  token().Fail("C_Sign", 0x150);
  EXPECT_EQ(Sign(Counting(20)), NTE_BUFFER_TOO_SMALL);
}

TEST_F(SignHashTest, KeyWithoutPrivateObject) {
  CachePin();
  record_->hPrivateKeyObject = 0;
  EXPECT_EQ(Sign(Counting(20)), NTE_INVALID_PARAMETER);
  EXPECT_EQ(token().Count("C_SignInit"), 0u);
}

TEST_F(SignHashTest, FailedSizeQueryLogsTheLengthThatItFound) {
  CachePin();
  token().Fail("C_Sign", CKR_DEVICE_ERROR);
  hash_ = Counting(20);
  length_ = 5;
  EXPECT_EQ(ksp().SignHash(provider_, key_, nullptr, hash_.data(), 20, nullptr, 0, &length_, 0), NTE_INTERNAL_ERROR);
  EXPECT_EQ(length_, 5u);
  const std::vector<Line> body = SignBody();
  ASSERT_GE(body.size(), 2u);
  EXPECT_EQ(body[body.size() - 2], Line("Signing failed. Check PKCS logs for detailed information"));
  EXPECT_EQ(body.back(), Number("pbSignature is NULL. Signature length: ", 5));
}

TEST_F(SignHashTest, DataBufferStaysAndHoldsTheDigestInfo) {
  CachePin();
  kit::MemoryWatch watch;
  const Bytes hash = Counting(20);
  EXPECT_EQ(Sign(hash), 0);
  std::size_t kept = 0;
  for (const auto& [address, size] : watch.Live()) {
    if (size < 35) continue;
    const auto* bytes = static_cast<const BYTE*>(address);
    kept += Bytes(bytes, bytes + 35) == Joined({kSha1, hash});
  }
  EXPECT_EQ(kept, 1u) << "the signed data, which is public, is not released";
}

TEST_F(SignHashTest, NothingElseStaysBehind) {
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
TEST_F(SignHashTest, LongerSignatureThanThereIsRoomFor) {
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
  EXPECT_EQ(SignBody().back(), Line(Dump("Signature\t\t: ", signature_)));
}

TEST_F(SignHashTest, ShownSignatureHasTheModulesLength) {
  CachePin();
  signature_.assign(200, 0xEE);
  hash_ = Counting(20);
  EXPECT_EQ(ksp().SignHash(provider_, key_, nullptr, hash_.data(), 20, signature_.data(), 200, &length_, 0), 0);
  EXPECT_EQ(length_, 128u);
  EXPECT_EQ(Bytes(signature_.begin() + 128, signature_.end()), Bytes(72, 0xEE));
  signature_.resize(128);
  EXPECT_EQ(SignBody().back(), Line(Dump("Signature\t\t: ", signature_)));
}

TEST_F(SignHashTest, AnyAllocationMayFail) {
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

TEST_F(SignHashTest, PinIsInNoFreedBlockAndNoLine) {
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

}  // namespace
