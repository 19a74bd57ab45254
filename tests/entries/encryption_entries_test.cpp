// Encrypt and Decrypt, entry to exit: checks in their order, token calls, log lines, statuses. The two mirror each
// other; most cases run for both.
#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "kit/bytes.h"
#include "kit/key_entry.h"

namespace {

using fake::Ascii;
using fake::Bytes;
using kit::Counting;
using kit::Frame;
using kit::Hex32;
using kit::kBadFlags;
using kit::kNoPadding;
using kit::kOaep;
using kit::kPkcs1;
using kit::kSilent;
using kit::Line;
using kit::Number;
using kit::Pointer32;

constexpr DWORD kBlock = 128;  // bytes of the tests' key

const char kNoOaep[] = "NTE_NOT_SUPPORTED: OAEP padding scheme is currently not supported.";
const char kNotWhole[] = "NTE_INVALID_PARAMETER: Data length is not a multiple of the algorithm block length.";
const char kNotFinished[] = "NTE_BAD_KEY_STATE: The specified key is not yet finalized";
const char kNoLogin[] = "Failed to login. Operation aborted.";
const char kLength[] = "pbOutput is NULL. Data length: ";

enum class Direction { Encrypt, Decrypt };

class EncryptionTest : public OpenedKeyTest<kBlock * 8> {
 protected:
  void LogIn() { CachePin(provider_, key_); }
  // Loads the provider anew with the log switched off, for cases of many calls whose lines are looked at elsewhere.
  void LoadWithoutLog() {
    ksp().FreeKey(provider_, key_);
    keys_.clear();
    ksp().FreeProvider(provider_);
    ASSERT_TRUE(kit::Provider::Get().Load(kit::Log::Mode::Off));
    provider_ = OpenProvider();
    key_ = Open(L"Key1");
    record_ = kit::KeyOf(key_);
  }

  struct Arguments {
    NCRYPT_PROV_HANDLE provider;
    NCRYPT_KEY_HANDLE key;
    BYTE* input = nullptr;
    DWORD inputLength = 0;
    void* padding = nullptr;
    BYTE* output = nullptr;
    DWORD outputLength = 0;
    DWORD* result = nullptr;
    DWORD flags = 0;
  };
  SECURITY_STATUS Call(Direction direction, const Arguments& a) {
    const kit::CryptFn entry = direction == Direction::Encrypt ? ksp().Encrypt : ksp().Decrypt;
    return entry(a.provider, a.key, a.input, a.inputLength, a.padding, a.output, a.outputLength, a.result, a.flags);
  }
  // A call with input, room for a block, and the result's length.
  Arguments Given(Bytes input, DWORD flags = 0) {
    input_ = std::move(input);
    output_.assign(kBlock, 0xEE);
    length_ = 0xEEEEEEEE;
    return {provider_, key_,     input_.data(), static_cast<DWORD>(input_.size()), nullptr, output_.data(),
            kBlock,    &length_, flags};
  }
  // The same asking for the length.
  Arguments Query(Bytes input, DWORD flags = 0) {
    Arguments arguments = Given(std::move(input), flags);
    arguments.output = nullptr;
    arguments.outputLength = 0;
    return arguments;
  }
  static std::vector<Line> Lines(Direction direction, const Arguments& a, const std::vector<Line>& body, LONG status) {
    std::vector<Line> lines{Hex32("hProvider    : ", a.provider),     Hex32("hKey         : ", a.key),
                            Pointer32("pbInput      : ", a.input),    Hex32("cbInput      : ", a.inputLength),
                            Pointer32("pPaddingInfo : ", a.padding),  Pointer32("pbOutput     : ", a.output),
                            Hex32("cbOutput     : ", a.outputLength), Pointer32("pcbResult    : ", a.result),
                            Hex32("dwFlags      : ", a.flags)};
    lines.insert(lines.end(), body.begin(), body.end());
    return Frame(direction == Direction::Encrypt ? "KELDAKSPEncrypt" : "KELDAKSPDecrypt", lines, status);
  }
  void ExpectRefused(Direction direction, const Arguments& arguments, const char* line, SECURITY_STATUS status) {
    Forget();
    EXPECT_EQ(Call(direction, arguments), status) << line;
    ExpectLines(Lines(direction, arguments, {line}, status));
    ExpectCalls({});
  }
  // The lines of a call that logged in with the cached PIN.
  void ExpectLinesAfterLogin(Direction direction, const Arguments& arguments, std::vector<Line> body, LONG status) {
    body.insert(body.begin(), LoginLine());
    EXPECT_TRUE(kit::SameLines(Lines(direction, arguments, body, status), PinLinesAsOne(kit::Log::Get().Take())));
  }
  static std::string Init(Direction direction) {
    return direction == Direction::Encrypt ? "C_EncryptInit(session=0x51, CKM_RSA_PKCS[NULL,0], key=0x101)"
                                           : "C_DecryptInit(session=0x51, CKM_RSA_PKCS[NULL,0], key=0x102)";
  }
  static std::string Work(Direction direction, const Bytes& input, const std::string& out) {
    return (direction == Direction::Encrypt ? "C_Encrypt(session=0x51, data=" : "C_Decrypt(session=0x51, data=") +
           fake::HexOf(input) + ", out=" + out + ")";
  }
  // An input that the direction's operation takes.
  Bytes InputFor(Direction direction) const {
    return direction == Direction::Encrypt ? Counting(5) : token().Ciphertext(pair_.privateKey, Counting(5));
  }
  Bytes OutputFor(Direction direction) const {
    return direction == Direction::Encrypt ? token().Ciphertext(pair_.publicKey, Counting(5)) : Counting(5);
  }
  static std::vector<Line> Failed(Direction direction, SECURITY_STATUS status) {
    if (direction == Direction::Encrypt) return {"Encryption failed. Check PKCS logs for detailed information."};
    return {Hex32("Decryption failed. Check PKCS logs for detailed information", static_cast<ULONG>(status))};
  }

  Bytes input_;
  Bytes output_;
  DWORD length_ = 0;
};

class BothDirections : public EncryptionTest, public ::testing::WithParamInterface<Direction> {
 protected:
  static Direction direction() { return GetParam(); }
  static const char* workFunction() { return direction() == Direction::Encrypt ? "C_Encrypt" : "C_Decrypt"; }
};

std::string NameOf(const ::testing::TestParamInfo<Direction>& given) {
  return given.param == Direction::Encrypt ? "Encrypt" : "Decrypt";
}

INSTANTIATE_TEST_SUITE_P(Entries, BothDirections, ::testing::Values(Direction::Encrypt, Direction::Decrypt), NameOf);

// --- success

TEST_P(BothDirections, WorksOnTheTokenAfterLogin) {
  LogIn();
  const Arguments arguments = Given(InputFor(direction()));
  EXPECT_EQ(Call(direction(), arguments), 0);
  const Bytes expected = OutputFor(direction());
  EXPECT_EQ(length_, expected.size());
  EXPECT_EQ(Bytes(output_.begin(), output_.begin() + static_cast<std::ptrdiff_t>(length_)), expected);
  EXPECT_EQ(input_, InputFor(direction())) << "the input is not written to";
  ExpectCalls(CallsAfterLogin({Init(direction()), Work(direction(), input_, "PTR, room=128")}));
  ExpectLinesAfterLogin(direction(), arguments, {}, 0);
  // The pair has a log instance of its own, which reads the switch.
  EXPECT_EQ(kit::Registry::Get().TakeReads(), (std::vector<std::wstring>{L"KSPLOG", L"KSPDIR"}));
}

// Neither input nor output appears in any line.
TEST_P(BothDirections, LogsNoData) {
  LogIn();
  const Arguments arguments = Given(InputFor(direction()));
  EXPECT_EQ(Call(direction(), arguments), 0);
  for (const Line& line : kit::Log::Get().Take())
    EXPECT_EQ(line.text.find("A0 A1"), std::string::npos) << line.text;
}

TEST_P(BothDirections, LengthQueryRunsTheWholeSequence) {
  LogIn();
  const Arguments arguments = Query(InputFor(direction()));
  EXPECT_EQ(Call(direction(), arguments), 0);
  EXPECT_EQ(length_, OutputFor(direction()).size());
  ExpectCalls(CallsAfterLogin({Init(direction()), Work(direction(), input_, "NULL")}));
  ExpectLinesAfterLogin(direction(), arguments, {Number(kLength, static_cast<long>(length_))}, 0);
}

TEST_P(BothDirections, LengthQueryIgnoresTheRoom) {
  LogIn();
  Arguments arguments = Query(InputFor(direction()));
  arguments.outputLength = 3;
  EXPECT_EQ(Call(direction(), arguments), 0);
  EXPECT_EQ(length_, OutputFor(direction()).size());
}

TEST_P(BothDirections, ShortBufferTellsTheLengthThatTheTokenLeft) {
  LogIn();
  Arguments arguments = Given(InputFor(direction()));
  const DWORD needed = static_cast<DWORD>(OutputFor(direction()).size());
  arguments.outputLength = needed - 1;
  EXPECT_EQ(Call(direction(), arguments), NTE_BUFFER_TOO_SMALL);
  EXPECT_EQ(length_, needed);
  EXPECT_EQ(output_, Bytes(kBlock, 0xEE));
  ExpectLinesAfterLogin(direction(), arguments, Failed(direction(), NTE_BUFFER_TOO_SMALL), NTE_BUFFER_TOO_SMALL);
  arguments.outputLength = needed;
  EXPECT_EQ(Call(direction(), arguments), 0) << "the room that was told is enough";
}

TEST_P(BothDirections, RoomOfNoBytes) {
  LogIn();
  Arguments arguments = Given(InputFor(direction()));
  arguments.outputLength = 0;
  EXPECT_EQ(Call(direction(), arguments), NTE_BUFFER_TOO_SMALL);
  EXPECT_EQ(length_, OutputFor(direction()).size());
}

TEST_P(BothDirections, InputOfNoBytes) {
  LogIn();
  BYTE byte = 0;
  Arguments arguments = Given({});
  arguments.input = &byte;
  EXPECT_EQ(Call(direction(), arguments), direction() == Direction::Encrypt ? 0 : NTE_INTERNAL_ERROR);
  EXPECT_EQ(token().Count(workFunction()), 1u);
}

TEST_P(BothDirections, PaddingInformationIsLoggedAndIgnored) {
  LogIn();
  Arguments arguments = Given(InputFor(direction()), kPkcs1);
  int anything = 0;
  arguments.padding = &anything;
  EXPECT_EQ(Call(direction(), arguments), 0);
  ExpectLinesAfterLogin(direction(), arguments, {}, 0);
}

TEST_P(BothDirections, UsagePolicyIsNotAsked) {
  LogIn();
  record_->dwKeyUsagePolicy = 0;
  EXPECT_EQ(Call(direction(), Given(InputFor(direction()))), 0);
}

TEST_P(BothDirections, OutputMayTakeTheInputsPlace) {
  LogIn();
  Arguments arguments = Given(InputFor(direction()));
  input_.resize(kBlock, 0);
  arguments.input = input_.data();
  arguments.output = input_.data();
  EXPECT_EQ(Call(direction(), arguments), 0);
  input_.resize(length_);
  EXPECT_EQ(input_, OutputFor(direction()));
}

TEST_P(BothDirections, LeavesNoMemoryBehindAndOneObjectsLog) {
  LogIn();
  kit::MemoryWatch watch;
  EXPECT_EQ(Call(direction(), Given(InputFor(direction()))), 0);
  EXPECT_TRUE(watch.Live().empty());
}

// --- flags

TEST_P(BothDirections, AcceptedFlags) {
  LogIn();
  for (const DWORD flags : {DWORD{0}, kPkcs1, kSilent, kPkcs1 | kSilent}) {
    Forget();
    const Arguments arguments = Given(InputFor(direction()), flags);
    EXPECT_EQ(Call(direction(), arguments), 0) << flags;
    ExpectLinesAfterLogin(direction(), arguments, {}, 0);
  }
}

TEST_P(BothDirections, EveryOtherFlagIsBad) {
  for (unsigned bit = 0; bit < 32; ++bit) {
    const DWORD flag = DWORD{1} << bit;
    if ((flag & (kNoPadding | kPkcs1 | kOaep | kSilent)) == 0) {
      ExpectRefused(direction(), Given(Counting(5), flag | kOaep | kNoPadding), kBadFlags, NTE_BAD_FLAGS);
    }
  }
}

TEST_P(BothDirections, OaepIsRefusedBeforeLogin) {
  ExpectRefused(direction(), Given(Counting(5), kOaep), kNoOaep, NTE_NOT_SUPPORTED);
  ExpectRefused(direction(), Given(Counting(5), kOaep | kPkcs1 | kNoPadding | kSilent), kNoOaep, NTE_NOT_SUPPORTED);
}

TEST_P(BothDirections, WithoutPaddingTheInputHasToFillItsBlocks) {
  for (const std::size_t length : {std::size_t{1}, std::size_t{kBlock - 1}, std::size_t{kBlock + 1}}) {
    ExpectRefused(direction(), Given(Counting(length), kNoPadding), kNotWhole, NTE_INVALID_PARAMETER);
    ExpectRefused(direction(), Given(Counting(length), kNoPadding | kPkcs1), kNotWhole, NTE_INVALID_PARAMETER);
  }
  record_->dwKeyBitLength = 1031;  // 128 whole bytes
  ExpectRefused(direction(), Given(Counting(129), kNoPadding), kNotWhole, NTE_INVALID_PARAMETER);
}

// The flag's only effect is the check: the token pads all the same.
TEST_P(BothDirections, WholeBlocksReachTheTokenWithTheSameMechanism) {
  LogIn();
  for (const std::size_t length : {std::size_t{kBlock}, std::size_t{2 * kBlock}}) {
    Forget();
    const Bytes input = Counting(length);
    EXPECT_EQ(Call(direction(), Given(input, kNoPadding)), NTE_INTERNAL_ERROR);
    ExpectCalls(CallsAfterLogin({Init(direction()), Work(direction(), input, "PTR, room=128")}));
  }
}

TEST_P(BothDirections, NoBytesAreNoBlocksAndReachTheToken) {
  LogIn();
  BYTE byte = 0;
  Arguments arguments = Given({}, kNoPadding);
  arguments.input = &byte;
  Call(direction(), arguments);
  ExpectCalls(CallsAfterLogin({Init(direction()), Work(direction(), {}, "PTR, room=128")}));
}

TEST_F(EncryptionTest, ACiphertextOfOneBlockDecryptsWithoutPaddingFlagToo) {
  LogIn();
  EXPECT_EQ(Call(Direction::Decrypt, Given(InputFor(Direction::Decrypt), kNoPadding)), 0);
  EXPECT_EQ(length_, 5u);
}

TEST_P(BothDirections, AKeyWithoutALengthDividesByNothing) {
  record_->dwKeyBitLength = 0;
  ExpectRefused(direction(), Given(Counting(5), kNoPadding), kNotWhole, NTE_INVALID_PARAMETER);
  record_->dwKeyBitLength = 7;
  ExpectRefused(direction(), Given(Counting(5), kNoPadding), kNotWhole, NTE_INVALID_PARAMETER);
}

// --- refusals

TEST_P(BothDirections, ChecksInOrder) {
  Arguments arguments = Given(Counting(5), 0xFFFFFFFF);
  BYTE* const input = arguments.input;
  arguments.input = nullptr;
  arguments.result = nullptr;
  record_->fFinished = 0;
  arguments.provider = 0;
  arguments.key = 0;
  ExpectRefused(direction(), arguments, "NTE_INVALID_HANDLE: pProvider is NULL", NTE_INVALID_HANDLE);
  arguments.provider = provider_;
  ExpectRefused(direction(), arguments, "NTE_INVALID_HANDLE: pKey is NULL", NTE_INVALID_HANDLE);
  arguments.key = key_;
  ExpectRefused(direction(), arguments, "NTE_INVALID_PARAMETER: pbInput is NULL", NTE_INVALID_PARAMETER);
  arguments.input = input;
  ExpectRefused(direction(), arguments, "NTE_INVALID_PARAMETER: pcbResult is NULL", NTE_INVALID_PARAMETER);
  arguments.result = &length_;
  ExpectRefused(direction(), arguments, kBadFlags, NTE_BAD_FLAGS);
  arguments.flags = kOaep | kNoPadding;
  ExpectRefused(direction(), arguments, kNoOaep, NTE_NOT_SUPPORTED);
  arguments.flags = kNoPadding;
  ExpectRefused(direction(), arguments, kNotWhole, NTE_INVALID_PARAMETER);
  arguments.flags = 0;
  ExpectRefused(direction(), arguments, kNotFinished, NTE_BAD_KEY_STATE);
  EXPECT_EQ(length_, 0xEEEEEEEE) << "no refusal writes the length";
  EXPECT_EQ(output_, Bytes(kBlock, 0xEE));
}

TEST_P(BothDirections, RecordsThatAreNoneAreRefused) {
  for (kit::ProviderRecord& broken : BrokenRecords(providerRecord())) {
    Arguments arguments = Given(Counting(5));
    arguments.provider = reinterpret_cast<NCRYPT_PROV_HANDLE>(&broken);
    ExpectRefused(direction(), arguments, "NTE_INVALID_HANDLE: pProvider is NULL", NTE_INVALID_HANDLE);
  }
  for (kit::KeyRecord& broken : BrokenRecords(*record_)) {
    Arguments arguments = Given(Counting(5));
    arguments.key = reinterpret_cast<NCRYPT_KEY_HANDLE>(&broken);
    ExpectRefused(direction(), arguments, "NTE_INVALID_HANDLE: pKey is NULL", NTE_INVALID_HANDLE);
  }
}

TEST_P(BothDirections, AsksForThePinAndEndsWithTheLoginsStatus) {
  kit::DialogRobot robot({[](kit::Dialog& dialog) { dialog.PressCancel(); }});
  const Arguments arguments = Given(InputFor(direction()), kSilent);
  EXPECT_EQ(Call(direction(), arguments), SCARD_W_CANCELLED_BY_USER);
  EXPECT_EQ(robot.Finish(), 1u) << "the silent flag does not keep the dialog away";
  EXPECT_EQ(length_, 0xEEEEEEEE);
  ExpectCalls({"C_GetTokenInfo(slot=11)"});
  ExpectLinesAfterLogin(direction(), arguments, {kNoLogin}, SCARD_W_CANCELLED_BY_USER);
}

TEST_P(BothDirections, FailingTokenInfoEndsTheCall) {
  token().Fail("C_GetTokenInfo", CKR_DEVICE_ERROR);
  const Arguments arguments = Given(InputFor(direction()));
  EXPECT_EQ(Call(direction(), arguments), NTE_INTERNAL_ERROR);
  ExpectLinesAfterLogin(direction(), arguments, {kNoLogin}, NTE_INTERNAL_ERROR);
  ExpectCalls({"C_GetTokenInfo(slot=11)"});
}

TEST_P(BothDirections, PinFromTheDialogIsEnough) {
  kit::DialogRobot robot({[](kit::Dialog& dialog) {
    dialog.Type(kit::kPinField, L"1234");
    dialog.PressOk();
  }});
  EXPECT_EQ(Call(direction(), Given(InputFor(direction()))), 0);
  EXPECT_EQ(robot.Finish(), 1u);
  EXPECT_EQ(length_, OutputFor(direction()).size());
}

// --- the token's answers

TEST_P(BothDirections, MissingKeyObjectIsRefusedByThePair) {
  LogIn();
  (direction() == Direction::Encrypt ? record_->hPublicKeyObject : record_->hPrivateKeyObject) = 0;
  const Arguments arguments = Given(InputFor(direction()));
  EXPECT_EQ(Call(direction(), arguments), NTE_INVALID_PARAMETER);
  EXPECT_EQ(length_, kBlock) << "the room comes back unchanged";
  ExpectLinesAfterLogin(direction(), arguments, Failed(direction(), NTE_INVALID_PARAMETER), NTE_INVALID_PARAMETER);
  ExpectCalls(CallsAfterLogin({}));
}

TEST_P(BothDirections, OnlyTheKeyObjectOfTheDirectionIsNeeded) {
  LogIn();
  (direction() == Direction::Encrypt ? record_->hPrivateKeyObject : record_->hPublicKeyObject) = 0;
  EXPECT_EQ(Call(direction(), Given(InputFor(direction()))), 0);
}

// Encryption has one answer for every failing start, decryption tells three apart.
class FailingStart : public BothDirections {
 protected:
  static const char* function() { return direction() == Direction::Encrypt ? "C_EncryptInit" : "C_DecryptInit"; }
  static SECURITY_STATUS Expected(CK_RV code) {
    if (direction() == Direction::Decrypt) {
      if (code == 0x68) return NTE_PERM;
      if (code == 0x82 || code == 0xB3) return NTE_INVALID_HANDLE;
    }
    return NTE_INTERNAL_ERROR;
  }
};

INSTANTIATE_TEST_SUITE_P(Entries, FailingStart, ::testing::Values(Direction::Encrypt, Direction::Decrypt), NameOf);

TEST_P(FailingStart, IsLoggedAndEndsTheCall) {
  LogIn();
  for (const CK_RV code : {0x1u, 0x60u, 0x68u, 0x82u, 0xB3u, 0x150u}) {
    Forget();
    token().Fail(function(), code);
    const Arguments arguments = Given(InputFor(direction()));
    EXPECT_EQ(Call(direction(), arguments), Expected(code));
    EXPECT_EQ(length_, kBlock);
    ExpectLinesAfterLogin(direction(), arguments, Failed(direction(), Expected(code)), Expected(code));
    ExpectCalls(CallsAfterLogin({Init(direction())}));
  }
}

TEST_P(FailingStart, EveryAnswerOfTheToken) {
  LoadWithoutLog();
  LogIn();
  for (CK_RV code = 1; code <= 0x1FF; ++code) {
    token().Fail(function(), code);
    ASSERT_EQ(Call(direction(), Given(InputFor(direction()))), Expected(code)) << std::hex << code;
    ASSERT_EQ(length_, kBlock);
  }
}

TEST_P(BothDirections, FailingWorkIsLogged) {
  LogIn();
  for (const CK_RV code : {0x1u, 0x68u, 0x82u, 0x150u}) {
    Forget();
    const SECURITY_STATUS expected = code == 0x150 ? NTE_BUFFER_TOO_SMALL : NTE_INTERNAL_ERROR;
    token().Fail(workFunction(), code);
    const Arguments arguments = Given(InputFor(direction()));
    EXPECT_EQ(Call(direction(), arguments), expected);
    EXPECT_EQ(length_, kBlock) << "whatever the token left in the length";
    ExpectLinesAfterLogin(direction(), arguments, Failed(direction(), expected), expected);
  }
}

TEST_P(BothDirections, EveryAnswerOfTheWork) {
  LoadWithoutLog();
  LogIn();
  for (CK_RV code = 1; code <= 0x1FF; ++code) {
    token().Fail(workFunction(), code);
    ASSERT_EQ(Call(direction(), Given(InputFor(direction()))),
              code == 0x150 ? NTE_BUFFER_TOO_SMALL : NTE_INTERNAL_ERROR)
        << std::hex << code;
  }
}

TEST_P(BothDirections, FailingLengthQueryStillLogsTheLength) {
  LogIn();
  token().Fail(workFunction(), CKR_DEVICE_ERROR);
  const Arguments arguments = Query(InputFor(direction()));
  length_ = 77;
  EXPECT_EQ(Call(direction(), arguments), NTE_INTERNAL_ERROR);
  EXPECT_EQ(length_, 77u);
  std::vector<Line> body = Failed(direction(), NTE_INTERNAL_ERROR);
  body.push_back(Number(kLength, 77));
  ExpectLinesAfterLogin(direction(), arguments, body, NTE_INTERNAL_ERROR);
}

TEST_P(BothDirections, LengthIsLoggedAsASignedNumber) {
  LogIn();
  token().Fail(workFunction(), CKR_DEVICE_ERROR);
  const Arguments arguments = Query(InputFor(direction()));
  length_ = 0xFFFFFFFF;
  EXPECT_EQ(Call(direction(), arguments), NTE_INTERNAL_ERROR);
  const std::vector<Line> lines = kit::Log::Get().Take();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), Number(kLength, -1)), 1);
}

TEST_F(EncryptionTest, AKeyThatTheTokenForbidsToDecrypt) {
  LogIn();
  token().ObjectAttributes(pair_.privateKey)[CKA_DECRYPT] = fake::Bool(false);
  EXPECT_EQ(Call(Direction::Decrypt, Given(InputFor(Direction::Decrypt))), NTE_PERM);
}

TEST_F(EncryptionTest, AKeyThatTheTokenForbidsToEncrypt) {
  LogIn();
  token().ObjectAttributes(pair_.publicKey)[CKA_ENCRYPT] = fake::Bool(false);
  EXPECT_EQ(Call(Direction::Encrypt, Given(Counting(5))), NTE_INTERNAL_ERROR);
}

TEST_F(EncryptionTest, LongestAndTooLongInput) {
  LogIn();
  EXPECT_EQ(Call(Direction::Encrypt, Given(Counting(kBlock - 11))), 0);
  EXPECT_EQ(length_, kBlock);
  EXPECT_EQ(Call(Direction::Encrypt, Given(Counting(kBlock - 10))), NTE_INTERNAL_ERROR);
}

TEST_F(EncryptionTest, WhatWasEncryptedComesBack) {
  LogIn();
  EXPECT_EQ(Call(Direction::Encrypt, Given(Ascii("a secret"))), 0);
  EXPECT_EQ(Call(Direction::Decrypt, Given(output_)), 0);
  output_.resize(length_);
  EXPECT_EQ(output_, Ascii("a secret"));
}

TEST_P(BothDirections, ThePairIsDestroyedOnFailureToo) {
  LogIn();
  token().Fail(workFunction(), CKR_DEVICE_ERROR);
  kit::MemoryWatch watch;
  EXPECT_EQ(Call(direction(), Given(InputFor(direction()))), NTE_INTERNAL_ERROR);
  EXPECT_TRUE(watch.Live().empty());
}

TEST_P(BothDirections, EachAllocationMayFail) {
  LoadWithoutLog();
  LogIn();
  ThrowOnce();
  std::size_t nth = 0;
  bool reached = true;
  while (reached) {
    const Arguments arguments = Given(InputFor(direction()));
    SECURITY_STATUS status = 0;
    {
      kit::MemoryWatch watch;
      watch.FailAllocation(++nth);
      status = Call(direction(), arguments);
      reached = watch.Allocations() >= nth;
      for (const auto& [block, size] : watch.Live())
        ADD_FAILURE() << size << " bytes left behind, allocation " << nth << ", status " << status;
    }
    // A line that cannot be formed is left out, and the work goes on without it.
    EXPECT_TRUE(status == 0 || status == NTE_NO_MEMORY || status == NTE_INTERNAL_ERROR) << nth << ": " << status;
    EXPECT_TRUE(reached || status == 0) << status;
    ASSERT_LT(nth, 1000u);
    Forget();
  }
  EXPECT_GT(nth, 5u);
}

}  // namespace
