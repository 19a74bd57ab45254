// ExportKey: the public key of a token key as a blob, and all that is refused.
#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "kit/key_entry.h"

namespace {

using fake::Ascii;
using fake::Bytes;
using kit::Dump;
using kit::Frame;
using kit::Hex32;
using kit::kFullPrivateBlob;
using kit::kPrivateBlob;
using kit::kPublicBlob;
using kit::kSilent;
using kit::Line;
using kit::Number;
using kit::Pointer32;

const char kNotFinished[] = "NTE_BAD_KEY_STATE: Key is not yet finalized";
const char kUnknownType[] = "NTE_NOT_SUPPORTED: pszBlobType is not supported";
const char kPolicy[] = "NTE_NOT_SUPPORTED: Current export policy does not permit exporting of keys";
const char kWrapped[] = "NTE_NOT_SUPPORTED: Encryption of key blobs is not yet supported.";
const char kNoPrivate[] = "NTE_NOT_SUPPORTED: Exporting of private keys is not allowed";
const char kNoPlain[] = "NTE_NOT_SUPPORTED: Exporting in plain text is not permitted";
const char kTooSmall[] = "NTE_BUFFER_TOO_SMALL: The expected output is larger than the output buffer";
const char kQuery[] = "pbOutput is NULL. Querying key blob size... ";

class ExportKeyTest : public OpenedKeyTest<2048> {
 protected:
  struct Arguments {
    NCRYPT_PROV_HANDLE provider;
    NCRYPT_KEY_HANDLE key;
    NCRYPT_KEY_HANDLE exportKey = 0;
    const wchar_t* type = kPublicBlob;
    NCryptBufferDesc* parameters = nullptr;
    BYTE* output = nullptr;
    DWORD outputLength = 0;
    DWORD* result = nullptr;
    DWORD flags = 0;
  };
  SECURITY_STATUS Call(const Arguments& a) {
    return ksp().ExportKey(a.provider, a.key, a.exportKey, a.type, a.parameters, a.output, a.outputLength, a.result,
                           a.flags);
  }
  // A call with room for `room` bytes.
  Arguments Given(std::size_t room = 283) {
    output_.assign(room, 0xEE);
    length_ = 0xEEEEEEEE;
    Arguments arguments{provider_, key_};
    arguments.output = output_.data();
    arguments.outputLength = static_cast<DWORD>(room);
    arguments.result = &length_;
    return arguments;
  }
  Arguments Query() {
    Arguments arguments = Given();
    arguments.output = nullptr;
    arguments.outputLength = 0;
    return arguments;
  }
  static std::vector<Line> Lines(const Arguments& a, const std::vector<Line>& body, LONG status) {
    std::vector<Line> lines{
        Hex32("hProvider      : ", a.provider),       Hex32("hKey           : ", a.key),
        Hex32("hExportKey     : ", a.exportKey),      "pszBlobType    : " + kit::Narrow(a.type ? a.type : L""),
        Pointer32("pParameterList : ", a.parameters), Pointer32("pbOutput       : ", a.output),
        Hex32("cbOutput       : ", a.outputLength),   Pointer32("pcbResult      : ", a.result),
        Hex32("dwFlags        : ", a.flags)};
    lines.insert(lines.end(), body.begin(), body.end());
    return Frame("KELDAKSPExportKey", lines, status);
  }
  void ExpectRefused(const Arguments& arguments, const char* line, SECURITY_STATUS status) {
    Forget();
    EXPECT_EQ(Call(arguments), status) << line;
    ExpectLines(Lines(arguments, {line}, status));
    ExpectCalls({});
  }
  // The calls that read the key, the second with the lengths that the first has brought.
  static std::string Lengths() {
    return "C_GetAttributeValue(session=0x51, object=0x101, {CKA_MODULUS[NULL,0], CKA_MODULUS_BITS[NULL,0], "
           "CKA_PUBLIC_EXPONENT[NULL,0]})";
  }
  static std::string Values(unsigned modulus, unsigned bits, unsigned exponent) {
    return "C_GetAttributeValue(session=0x51, object=0x101, {CKA_MODULUS[" + std::to_string(modulus) +
           "], CKA_MODULUS_BITS[" + std::to_string(bits) + "], CKA_PUBLIC_EXPONENT[" + std::to_string(exponent) + "]})";
  }
  fake::Attributes& publicKey() { return token().ObjectAttributes(pair_.publicKey); }
  // The blob of these numbers.
  static Bytes Blob(const Bytes& exponentAsWritten, const Bytes& modulus) {
    Bytes blob = Ascii("RSA1");
    for (const CK_ULONG field :
         {static_cast<CK_ULONG>(modulus.size() * 8), static_cast<CK_ULONG>(exponentAsWritten.size()),
          static_cast<CK_ULONG>(modulus.size()), CK_ULONG{0}, CK_ULONG{0}}) {
      const Bytes bytes = fake::Ulong(field);
      blob.insert(blob.end(), bytes.begin(), bytes.end());
    }
    blob.insert(blob.end(), exponentAsWritten.begin(), exponentAsWritten.end());
    blob.insert(blob.end(), modulus.begin(), modulus.end());
    return blob;
  }

  Bytes output_;
  DWORD length_ = 0;
};

// --- the blob

TEST_F(ExportKeyTest, WritesHeaderExponentAndModulus) {
  const Arguments arguments = Given();
  EXPECT_EQ(Call(arguments), 0);
  EXPECT_EQ(length_, 283u);
  EXPECT_EQ(output_, Blob({1, 0, 1}, publicKey()[CKA_MODULUS]));
  ExpectLines(Lines(arguments, {Dump("Public Key Blob: ", output_)}, 0));
  ExpectCalls({Lengths(), Values(256, 4, 3)});  // and no login
  EXPECT_EQ(kit::Registry::Get().TakeReads(), std::vector<std::wstring>{});
}

TEST_F(ExportKeyTest, ExponentIsReversedAndTheModulusIsNot) {
  publicKey()[CKA_PUBLIC_EXPONENT] = {1, 2, 3, 4};
  publicKey()[CKA_MODULUS] = {0x91, 0x92, 0x93, 0x94, 0x95};
  EXPECT_EQ(Call(Given(33)), 0);
  EXPECT_EQ(length_, 33u);
  EXPECT_EQ(output_, Blob({4, 3, 2, 1}, {0x91, 0x92, 0x93, 0x94, 0x95}));
}

TEST_F(ExportKeyTest, BitLengthIsThatOfTheModulusBytesNotOfTheAttribute) {
  publicKey()[CKA_MODULUS_BITS] = fake::Ulong(77);
  record_->dwKeyBitLength = 99;
  EXPECT_EQ(Call(Given()), 0);
  EXPECT_EQ(output_[4] | output_[5] << 8, 2048);
}

TEST_F(ExportKeyTest, LongExponentsAndLeadingZerosGoAsTheyAre) {
  publicKey()[CKA_PUBLIC_EXPONENT] = {0, 1, 2, 3, 4, 5, 6, 7, 8};
  publicKey()[CKA_MODULUS] = {0, 0x91};
  EXPECT_EQ(Call(Given(35)), 0);
  EXPECT_EQ(output_, Blob({8, 7, 6, 5, 4, 3, 2, 1, 0}, {0, 0x91}));
}

TEST_F(ExportKeyTest, TheWholeBufferIsClearedAndShown) {
  const Arguments arguments = Given(400);
  EXPECT_EQ(Call(arguments), 0);
  EXPECT_EQ(length_, 283u);
  Bytes expected = Blob({1, 0, 1}, publicKey()[CKA_MODULUS]);
  expected.resize(400, 0);
  EXPECT_EQ(output_, expected);
  ExpectLines(Lines(arguments, {Dump("Public Key Blob: ", expected)}, 0));
}

TEST_F(ExportKeyTest, TheDumpEndsAtFiveHundredBytes) {
  const Arguments arguments = Given(2000);
  EXPECT_EQ(Call(arguments), 0);
  Bytes shown = output_;
  shown.resize(500);
  ExpectLines(Lines(arguments, {Dump("Public Key Blob: ", shown)}, 0));
  EXPECT_EQ(Bytes(output_.begin() + 283, output_.end()), Bytes(2000 - 283, 0));
}

TEST_F(ExportKeyTest, ALengthAtItsMaximumIsNoBuffers) {
  for (const DWORD room : {DWORD{0xFFFFFFFF}, DWORD{0x80000000}}) {
    Arguments arguments = Given(300);
    arguments.outputLength = room;
    EXPECT_EQ(Call(arguments), 0);
    Bytes expected = Blob({1, 0, 1}, publicKey()[CKA_MODULUS]);
    expected.resize(300, 0xEE);
    EXPECT_EQ(output_, expected) << "nothing behind the blob is touched";
  }
}

TEST_F(ExportKeyTest, SizeQueryReadsTheKey) {
  const Arguments arguments = Query();
  EXPECT_EQ(Call(arguments), 0);
  EXPECT_EQ(length_, 283u);
  ExpectLines(Lines(arguments, {Number(kQuery, 283)}, 0));
  ExpectCalls({Lengths(), Values(256, 4, 3)});
}

TEST_F(ExportKeyTest, SizeQueryIgnoresTheRoom) {
  Arguments arguments = Query();
  arguments.outputLength = 1;
  EXPECT_EQ(Call(arguments), 0);
  EXPECT_EQ(length_, 283u);
}

TEST_F(ExportKeyTest, ShortBufferIsLeftAsItIs) {
  for (const std::size_t room : {std::size_t{282}, std::size_t{24}, std::size_t{1}}) {
    Forget();
    const Arguments arguments = Given(room);
    EXPECT_EQ(Call(arguments), NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(output_, Bytes(room, 0xEE));
    EXPECT_EQ(length_, 0xEEEEEEEE) << "the size is not told";
    ExpectLines(Lines(arguments, {kTooSmall}, NTE_BUFFER_TOO_SMALL));
    ExpectCalls({Lengths(), Values(256, 4, 3)});
  }
  Arguments arguments = Given(8);
  arguments.outputLength = 0;
  EXPECT_EQ(Call(arguments), NTE_BUFFER_TOO_SMALL);
  EXPECT_EQ(output_, Bytes(8, 0xEE));
}

TEST_F(ExportKeyTest, SilentFlagIsAccepted) {
  Arguments arguments = Given();
  arguments.flags = kSilent;
  EXPECT_EQ(Call(arguments), 0);
  ExpectLines(Lines(arguments, {Dump("Public Key Blob: ", output_)}, 0));
}

TEST_F(ExportKeyTest, ParameterListIsOnlyLogged) {
  Arguments arguments = Given();
  // Not even read: an address in it leads nowhere.
  NCryptBufferDesc parameters{0x12345678, 0xFFFFFFFF, reinterpret_cast<NCryptBuffer*>(std::uintptr_t{16})};
  arguments.parameters = &parameters;
  EXPECT_EQ(Call(arguments), 0);
  ExpectLines(Lines(arguments, {Dump("Public Key Blob: ", output_)}, 0));
}

TEST_F(ExportKeyTest, GeneratedKeysExportAsWell) {
  CachePin(provider_, key_);
  const NCRYPT_KEY_HANDLE key = Create(L"generated");
  ASSERT_EQ(ksp().FinalizeKey(provider_, key, 0), 0);
  Arguments arguments = Query();
  arguments.key = key;
  EXPECT_EQ(Call(arguments), 0);
  EXPECT_EQ(length_, 283u);
}

// --- keys that cannot be read: the status is not looked at, an empty blob comes out

class UnreadableKey : public ExportKeyTest {
 protected:
  void ExpectEmptyBlob(const std::vector<std::string>& calls) {
    Forget();
    Arguments arguments = Query();
    EXPECT_EQ(Call(arguments), 0);
    EXPECT_EQ(length_, 24u);
    ExpectLines(Lines(arguments, {Number(kQuery, 24)}, 0));
    ExpectCalls(calls);

    arguments = Given(30);
    EXPECT_EQ(Call(arguments), 0);
    EXPECT_EQ(length_, 24u);
    EXPECT_EQ(output_, Bytes(30, 0)) << "cleared, and nothing written";
    ExpectLines(Lines(arguments, {Dump("Public Key Blob: ", output_)}, 0));

    arguments = Given(23);
    EXPECT_EQ(Call(arguments), NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(output_, Bytes(23, 0xEE));
  }
};

TEST_F(UnreadableKey, WithoutAPublicObject) {
  record_->hPublicKeyObject = 0;
  ExpectEmptyBlob({});
}

TEST_F(UnreadableKey, WithoutASession) {
  const ULONG session = std::exchange(providerRecord().hSession, 0UL);
  ExpectEmptyBlob({});
  providerRecord().hSession = session;
}

TEST_F(UnreadableKey, LengthsCannotBeRead) {
  token().FailAlways("C_GetAttributeValue", CKR_DEVICE_ERROR);
  ExpectEmptyBlob({Lengths()});
}

TEST_F(UnreadableKey, AnAttributeIsMissing) {
  for (const CK_ATTRIBUTE_TYPE type : {CKA_MODULUS, CKA_MODULUS_BITS, CKA_PUBLIC_EXPONENT}) {
    const Bytes value = publicKey()[type];
    publicKey().erase(type);
    ExpectEmptyBlob({Lengths()});
    publicKey()[type] = value;
  }
}

TEST_F(UnreadableKey, ValuesCannotBeRead) {
  token().Fail("C_GetAttributeValue", CKR_DEVICE_ERROR, 2);
  EXPECT_EQ(Call(Query()), 0);
  EXPECT_EQ(length_, 24u);
  ExpectCalls({Lengths(), Values(256, 4, 3)});
}

TEST_F(UnreadableKey, ValuesThatHaveGrownMeanwhile) {
  std::size_t calls = 0;
  token().Before("C_GetAttributeValue", [&](const fake::Call&) {
    if (++calls == 2) publicKey()[CKA_MODULUS] = Bytes(300, 0x91);
  });
  EXPECT_EQ(Call(Query()), 0);
  EXPECT_EQ(length_, 24u);
}

TEST_F(ExportKeyTest, AttributesOfNoBytesArePresent) {
  publicKey()[CKA_MODULUS] = {};
  publicKey()[CKA_PUBLIC_EXPONENT] = {};
  EXPECT_EQ(Call(Given(24)), 0);
  EXPECT_EQ(output_, Blob({}, {}));
}

TEST_F(ExportKeyTest, BitsOfAnotherWidthDoNoHarm) {
  for (const std::size_t width : {std::size_t{0}, std::size_t{1}, std::size_t{8}, std::size_t{100}}) {
    publicKey()[CKA_MODULUS_BITS] = Bytes(width, 0x08);
    EXPECT_EQ(Call(Given()), 0);
    EXPECT_EQ(output_, Blob({1, 0, 1}, publicKey()[CKA_MODULUS]));
  }
}

// --- refusals

TEST_F(ExportKeyTest, InvalidHandlesAreInternalErrors) {
  for (kit::ProviderRecord& broken : BrokenRecords(providerRecord())) {
    Arguments arguments = Given();
    arguments.provider = reinterpret_cast<NCRYPT_PROV_HANDLE>(&broken);
    ExpectRefused(arguments, "NTE_INVALID_HANDLE: pProvider is NULL", NTE_INTERNAL_ERROR);
  }
  for (kit::KeyRecord& broken : BrokenRecords(*record_)) {
    Arguments arguments = Given();
    arguments.key = reinterpret_cast<NCRYPT_KEY_HANDLE>(&broken);
    ExpectRefused(arguments, "NTE_INVALID_HANDLE: pKey is NULL", NTE_INTERNAL_ERROR);
  }
}

TEST_F(ExportKeyTest, ChecksInOrder) {
  Arguments arguments{0, 0};
  arguments.exportKey = 1;
  arguments.type = L"OTHER";
  arguments.flags = 0xFFFFFFFF;
  record_->fFinished = 0;
  record_->dwExportPolicy = 3;
  ExpectRefused(arguments, "NTE_INVALID_HANDLE: pProvider is NULL", NTE_INTERNAL_ERROR);
  arguments.provider = provider_;
  ExpectRefused(arguments, "NTE_INVALID_HANDLE: pKey is NULL", NTE_INTERNAL_ERROR);
  arguments.key = key_;
  ExpectRefused(arguments, "NTE_INVALID_PARAMETER: pcbResult is NULL", NTE_INVALID_PARAMETER);
  length_ = 0xEEEEEEEE;
  arguments.result = &length_;
  ExpectRefused(arguments, "NTE_BAD_FLAGS: No flags are defined for this function.", NTE_BAD_FLAGS);
  arguments.flags = kSilent;
  ExpectRefused(arguments, kNotFinished, NTE_BAD_KEY_STATE);
  record_->fFinished = 1;
  ExpectRefused(arguments, kUnknownType, NTE_NOT_SUPPORTED);
  arguments.type = kPrivateBlob;
  ExpectRefused(arguments, kPolicy, NTE_NOT_SUPPORTED);
  record_->dwExportPolicy = 2;
  ExpectRefused(arguments, kWrapped, NTE_NOT_SUPPORTED);
  arguments.exportKey = 0;
  ExpectRefused(arguments, kNoPrivate, NTE_NOT_SUPPORTED);
  EXPECT_EQ(length_, 0xEEEEEEEE);
}

TEST_F(ExportKeyTest, EveryFlagButSilentIsBad) {
  for (unsigned bit = 0; bit < 32; ++bit) {
    Arguments arguments = Query();
    arguments.flags = DWORD{1} << bit;
    EXPECT_EQ(Call(arguments), arguments.flags == kSilent ? 0 : NTE_BAD_FLAGS) << bit;
  }
}

TEST_F(ExportKeyTest, BlobTypesAreComparedExactly) {
  for (const wchar_t* type : {L"rsapublicblob", L"RSAPUBLICBLOB ", L"RSAPUBLIC", L"", L"PUBLICBLOB", L"RSAPRIVATEBLOB2",
                              L"CAPIPUBLICBLOB", L"rsaprivateblob", L"RSAFULLPRIVATE"}) {
    Arguments arguments = Given();
    arguments.type = type;
    ExpectRefused(arguments, kUnknownType, NTE_NOT_SUPPORTED);
  }
  Arguments arguments = Given();
  arguments.type = nullptr;
  ExpectRefused(arguments, kUnknownType, NTE_NOT_SUPPORTED);
}

// The test is the wrong way round: the bit that allows the export refuses it.
TEST_F(ExportKeyTest, PolicyBits) {
  for (DWORD policy = 0; policy < 16; ++policy) {
    record_->dwExportPolicy = policy;
    EXPECT_EQ(Call(Given()), policy & 1 ? NTE_NOT_SUPPORTED : 0) << policy;
    for (const wchar_t* type : {kPublicBlob, kPrivateBlob, kFullPrivateBlob}) {
      if (type == kPublicBlob && !(policy & 1)) continue;
      Arguments arguments = Given();
      arguments.type = type;
      ExpectRefused(arguments, policy & 1 ? kPolicy : policy & 2 ? kNoPrivate : kNoPlain, NTE_NOT_SUPPORTED);
    }
  }
  record_->dwExportPolicy = 0xFFFFFFFE;
  EXPECT_EQ(Call(Given()), 0);
}

TEST_F(ExportKeyTest, AnExportKeyIsRefusedWhateverItIs) {
  for (const NCRYPT_KEY_HANDLE exportKey : {key_, NCRYPT_KEY_HANDLE{1}, ~NCRYPT_KEY_HANDLE{0}}) {
    Arguments arguments = Given();
    arguments.exportKey = exportKey;
    ExpectRefused(arguments, kWrapped, NTE_NOT_SUPPORTED);
  }
}

TEST_F(ExportKeyTest, UnfinishedKeyIsRefused) {
  Arguments arguments = Query();
  arguments.key = Create(nullptr);
  ExpectRefused(arguments, kNotFinished, NTE_BAD_KEY_STATE);
}

// --- memory

TEST_F(ExportKeyTest, NumbersAreWipedBeforeTheirMemoryIsReleased) {
  // A digit sequence that stands in no other block.
  Bytes modulus(64);
  for (std::size_t i = 0; i < modulus.size(); ++i)
    modulus[i] = static_cast<BYTE>(0x81 + 7 * i % 101);
  publicKey()[CKA_MODULUS] = modulus;
  kit::MemoryWatch watch;
  EXPECT_EQ(Call(Given()), 0);
  EXPECT_EQ(Call(Given(10)), NTE_BUFFER_TOO_SMALL);
  EXPECT_EQ(Call(Query()), 0);
  token().Fail("C_GetAttributeValue", CKR_DEVICE_ERROR, 2);
  EXPECT_EQ(Call(Query()), 0);
  const std::string_view numbers(reinterpret_cast<const char*>(modulus.data()), modulus.size());
  EXPECT_FALSE(watch.FreedContains(numbers));
  EXPECT_TRUE(watch.Live().empty());
}

TEST_F(ExportKeyTest, EachAllocationMayFail) {
  ThrowOnce();
  std::size_t nth = 0;
  bool reached = true;
  bool refused = false;
  while (reached) {
    const Arguments arguments = Given();
    SECURITY_STATUS status = 0;
    {
      kit::MemoryWatch watch;
      watch.FailAllocation(++nth);
      status = Call(arguments);
      reached = watch.Allocations() >= nth;
      EXPECT_TRUE(watch.Live().empty()) << nth;
    }
    // A line that cannot be formed is left out, and the work goes on without it.
    EXPECT_TRUE(status == 0 || status == NTE_NO_MEMORY) << nth << ": " << status;
    refused = refused || status == NTE_NO_MEMORY;
    ASSERT_LT(nth, 1000u);
    Forget();
  }
  EXPECT_TRUE(refused);
}

TEST_F(UnreadableKey, AnExponentLongerThanAnyBlock) {
  publicKey()[CKA_PUBLIC_EXPONENT] = Bytes(0x04000000, 1);
  ExpectEmptyBlob({Lengths()});
}

}  // namespace
