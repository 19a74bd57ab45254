// ImportKey: public and private blobs, names from the parameter list, wrapped blobs, and bytes that are not what they
// say.
#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "kit/bytes.h"
#include "kit/key_entry.h"

namespace {

using fake::Ascii;
using fake::Bytes;
using kit::Frame;
using kit::Hex32;
using kit::Joined;
using kit::kBadFlags;
using kit::kDoNotFinalize;
using kit::kOverwrite;
using kit::kPrivateBlob;
using kit::kPublicBlob;
using kit::kSilent;
using kit::Line;
using kit::Number;
using kit::Pointer32;
using kit::WideBytes;

constexpr ULONG kKeyNameBuffer = 45;  // NCRYPTBUFFER_PKCS_KEY_NAME
constexpr std::uint32_t kRsa1 = 0x31415352;
constexpr std::uint32_t kRsa2 = 0x32415352;
constexpr std::uint32_t kLargestBlock = 0x03FFFFFF;  // bytes; what asks for more finds no memory

const char kWrongType[] = "NTE_INVALID_PARAMETER: Only RSA BLOBs are currently supported";
const char kUnsupportedFlags[] =
    "NTE_NOT_SUPPORTED: NCRYPT_MACHINE_KEY_FLAG and NCRYPT_WRITE_KEY_TO_LEGACY_STORE_FLAG are not supported flags.";
const char kNoName[] = "ReadKeyNameFromParams failed";
const char kNoImportKey[] = "NTE_INVALID_HANDLE: hImportKey handle is invalid";
const char kLongExponent[] = "Public exponent length exceeds 32 bits";
const char kNoRandom[] = "NTE_INTERNAL_ERROR: Random number generation failed";
const char kInitializing[] = "Initializing public key attributes";
const char kCreating[] = "Creating public key";
const char kCreationFailed[] = "Public key creation failed: ";
const char kNoLogin[] = "Failed to login. Operation aborted";
const char kFinalizing[] = "Finalizing key...";

struct Header {
  std::uint32_t magic = kRsa1;
  std::uint32_t bitLength = 1024;
  std::uint32_t cbPublicExp = 3;
  std::uint32_t cbModulus = 128;
  std::uint32_t cbPrime1 = 0;
  std::uint32_t cbPrime2 = 0;
};

// `count` bytes that occur in this order nowhere else.
Bytes Numbers(std::size_t count, unsigned seed) {
  Bytes bytes(count);
  unsigned state = seed;
  for (std::uint8_t& byte : bytes) {
    state = state * 1103515245 + 12345;
    byte = static_cast<std::uint8_t>(state >> 16);
  }
  return bytes;
}

Bytes HeaderBytes(const Header& header) {
  return Joined({fake::Ulong(header.magic), fake::Ulong(header.bitLength), fake::Ulong(header.cbPublicExp),
                 fake::Ulong(header.cbModulus), fake::Ulong(header.cbPrime1), fake::Ulong(header.cbPrime2)});
}

const Bytes kModulus = Numbers(128, 1);
const Bytes kPrime1 = Numbers(64, 2);
const Bytes kPrime2 = Numbers(64, 3);

Bytes PublicBlob(const Header& header = {}, const Bytes& exponent = {1, 0, 1}, const Bytes& modulus = kModulus) {
  return Joined({HeaderBytes(header), exponent, modulus});
}

Bytes PrivateBlob(std::uint32_t magic = kRsa2) {
  return Joined({HeaderBytes({magic, 1024, 3, 128, 64, 64}), {1, 0, 1}, kModulus, kPrime1, kPrime2});
}

// A parameter list. The data of its buffers ends with their memory.
class Parameters {
 public:
  Parameters& Add(Bytes data, ULONG type = kKeyNameBuffer) {
    data_.push_back(std::move(data));
    types_.push_back(type);
    return *this;
  }
  NCryptBufferDesc* List() {
    buffers_.clear();
    for (std::size_t i = 0; i < data_.size(); ++i)
      buffers_.push_back({static_cast<ULONG>(data_[i].size()), types_[i], data_[i].data()});
    list_ = {0, static_cast<ULONG>(buffers_.size()), buffers_.data()};
    return &list_;
  }
  std::vector<NCryptBuffer>& buffers() { return buffers_; }

 private:
  std::vector<Bytes> data_;
  std::vector<ULONG> types_;
  std::vector<NCryptBuffer> buffers_;
  NCryptBufferDesc list_{};
};

class ImportKeyTest : public KeyEntryTest {
 protected:
  static constexpr NCRYPT_KEY_HANDLE kUntouched = 0xEE;

  struct Arguments {
    NCRYPT_PROV_HANDLE provider;
    NCRYPT_KEY_HANDLE importKey = 0;
    const wchar_t* type = kPublicBlob;
    NCryptBufferDesc* parameters = nullptr;
    NCRYPT_KEY_HANDLE* key = nullptr;
    BYTE* data = nullptr;
    DWORD length = 0;
    DWORD flags = 0;
  };
  SECURITY_STATUS Call(const Arguments& a) {
    return ksp().ImportKey(a.provider, a.importKey, a.type, a.parameters, a.key, a.data, a.length, a.flags);
  }
  Arguments Given(Bytes blob, const wchar_t* type = kPublicBlob, DWORD flags = 0) {
    blob_ = std::move(blob);
    blob_.shrink_to_fit();
    key_ = kUntouched;
    Arguments arguments{provider_};
    arguments.type = type;
    arguments.key = &key_;
    arguments.data = blob_.data();
    arguments.length = static_cast<DWORD>(blob_.size());
    arguments.flags = flags;
    return arguments;
  }
  SECURITY_STATUS Import(Bytes blob, const wchar_t* type = kPublicBlob, DWORD flags = 0) {
    return Call(Given(std::move(blob), type, flags));
  }
  // A private blob that is not finalized: what is kept of the arguments, without a login and an object on the token.
  SECURITY_STATUS ImportNamed(Parameters& parameters) {
    Arguments arguments = Given(PrivateBlob(), kPrivateBlob, kDoNotFinalize);
    arguments.parameters = parameters.List();
    return Call(arguments);
  }
  // Of the key that the last import has handed out.
  kit::KeyRecord& record() const {
    static kit::KeyRecord none;
    if (key_ == kUntouched) {
      ADD_FAILURE() << "no key was handed out";
      none = {};
      return none;
    }
    return *kit::KeyOf(key_);
  }

  static std::vector<Line> Lines(const Arguments& a, const std::vector<Line>& body, LONG status) {
    std::vector<Line> lines{Hex32("hProvider      : ", a.provider),
                            Hex32("hImportKey     : ", a.importKey),
                            "pszBlobType    : " + kit::Narrow(a.type ? a.type : L""),
                            Pointer32("pParameterList : ", a.parameters),
                            Pointer32("phKey          : ", a.key),
                            Pointer32("pbData         : ", a.data),
                            Hex32("cbData         : ", a.length),
                            Hex32("dwFlags        : ", a.flags)};
    lines.insert(lines.end(), body.begin(), body.end());
    return Frame("KELDAKSPImportKey", lines, status);
  }
  // The lines of the finalization that an import runs at its end.
  std::vector<Line> FinalizeLines(const std::vector<Line>& body, LONG status) const {
    std::vector<Line> lines{Hex32("hProvider : ", provider_), Hex32("hKey      : ", key_), "dwFlags   : 0x00000000"};
    lines.insert(lines.end(), body.begin(), body.end());
    return Frame("KELDAKSPFinalizeKey", lines, status);
  }
  void ExpectRefused(const Arguments& arguments, const char* line, SECURITY_STATUS status) {
    Forget();
    key_ = kUntouched;
    EXPECT_EQ(Call(arguments), status) << line;
    EXPECT_EQ(key_, kUntouched);
    ExpectLines(Lines(arguments, {line}, status));
    ExpectCalls({});
  }
  void ExpectLinesWithLogin(const std::vector<Line>& expected) {
    EXPECT_TRUE(kit::SameLines(expected, PinLinesAsOne(kit::Log::Get().Take())));
  }
  static std::vector<Line> Nested(std::vector<Line> lines, const std::vector<Line>& inner) {
    lines.insert(lines.end(), inner.begin(), inner.end());
    return lines;
  }

  static std::string Random() { return "C_GenerateRandom(session=0x51, length=64)"; }
  static std::string Logout() { return "C_Logout(session=0x51)"; }
  // The first 64 random bytes of the token, and as many zeros.
  static Bytes Id() {
    Bytes id(128, 0);
    for (std::size_t i = 0; i < 64; ++i)
      id[i] = static_cast<std::uint8_t>(i + 1);
    return id;
  }
  // The random bytes of the next import are those of the first.
  void RepeatRandom() {
    Bytes id = Id();
    id.resize(64);
    token().SetRandom(id);
  }
  struct Created {
    bool onToken = false;
    Bytes exponent{1, 0, 1, 0};
    Bytes modulus = kModulus;
    std::string label;  // only with onToken
  };
  static std::string Create() { return Create(Created()); }
  static std::string Create(const Created& object) {
    using fake::HexOf;
    std::string text = "C_CreateObject(session=0x51, {CKA_CLASS=02000000, CKA_TOKEN=";
    text += object.onToken ? "01" : "00";
    text += ", CKA_PRIVATE=00, CKA_MODIFIABLE=01, CKA_EXTRACTABLE=01, CKA_ID=" + HexOf(Id()) +
            ", CKA_PUBLIC_EXPONENT=" + HexOf(object.exponent) + ", CKA_MODULUS=" + HexOf(object.modulus) +
            ", CKA_MODULUS_BITS=" + HexOf(fake::Ulong(static_cast<CK_ULONG>(object.modulus.size() * 8))) +
            ", CKA_ENCRYPT=01, CKA_VERIFY=01";
    if (object.onToken) text += ", CKA_LABEL=" + HexOf(Ascii(object.label));
    return text + "})";
  }

  NCRYPT_KEY_HANDLE key_ = kUntouched;
  Bytes blob_;
};

// --- public blobs

TEST_F(ImportKeyTest, PublicBlobBecomesASessionObject) {
  const Arguments arguments = Given(PublicBlob());
  EXPECT_EQ(Call(arguments), 0);
  ExpectLines(Lines(arguments, {kInitializing, kCreating}, 0));
  ExpectCalls({Random(), Create(), Logout()});

  ASSERT_NE(key_, kUntouched);
  EXPECT_EQ(record().cbLength, sizeof(kit::KeyRecord));
  EXPECT_EQ(record().dwMagic, kRsa1);
  EXPECT_EQ(record().pszKeyName, nullptr);
  EXPECT_EQ(record().pszKeyBlobType, nullptr);
  EXPECT_EQ(record().cbKeyName, 0u);
  EXPECT_EQ(record().dwAlgID, 0u);
  EXPECT_EQ(record().dwKeyBitLength, 1024u);
  EXPECT_EQ(record().dwExportPolicy, 2u);
  EXPECT_EQ(record().dwKeyUsagePolicy, 3u);
  EXPECT_EQ(record().fOverwrite, 0u);
  EXPECT_EQ(record().fFinished, 1u);
  EXPECT_EQ(record().hPublicKeyObject, 0x101u);
  EXPECT_EQ(record().hPrivateKeyObject, 0u);
  EXPECT_EQ(record().cbKeyId, 0u);
  EXPECT_EQ(record().pbPrivateKey, nullptr);
  EXPECT_EQ(record().cbPrivateKey, 0u);
  EXPECT_NE(record().hAlgProvider, nullptr);
  EXPECT_EQ(Bytes(record().PublicExponent, record().PublicExponent + 4), (Bytes{1, 0, 1, 0}));
  ASSERT_NE(record().pbModulus, nullptr);
  EXPECT_EQ(Bytes(record().pbModulus, record().pbModulus + 128), kModulus);
  for (const BYTE* part : {record().pbPrime1, record().pbPrime2, record().pbExponent1, record().pbExponent2,
                           record().pbCoefficient, record().pbPrivateExponent}) {
    EXPECT_EQ(part, nullptr);
  }
  EXPECT_EQ(ksp().FreeKey(provider_, key_), 0);
}

TEST_F(ImportKeyTest, TheCallersBytesAreCopied) {
  EXPECT_EQ(Import(PublicBlob()), 0);
  EXPECT_EQ(blob_, PublicBlob()) << "and not written to";
  std::fill(blob_.begin(), blob_.end(), BYTE{0xEE});
  EXPECT_EQ(Bytes(record().pbModulus, record().pbModulus + 128), kModulus);
}

// The token object and the pair of objects inside it have a log instance each, which reads the switch.
TEST_F(ImportKeyTest, ReadsNothingElse) {
  EXPECT_EQ(Import(PublicBlob()), 0);
  EXPECT_EQ(kit::Registry::Get().TakeReads(), (std::vector<std::wstring>{L"KSPLOG", L"KSPDIR", L"KSPLOG", L"KSPDIR"}));
}

TEST_F(ImportKeyTest, NamedPublicKeyIsLoggedInForAndStaysOnTheToken) {
  LogIn();
  Parameters parameters;
  parameters.Add(WideBytes(L"a name"));
  Arguments arguments = Given(PublicBlob());
  arguments.parameters = parameters.List();
  EXPECT_EQ(Call(arguments), 0);
  ExpectLinesWithLogin(Lines(arguments, {kInitializing, kCreating, LoginLine()}, 0));
  Created object;
  object.onToken = true;
  object.label = "a name";
  std::vector<std::string> calls{Random()};
  for (const std::string& call : CallsAfterLogin())
    calls.push_back(call);
  calls.push_back(Create(object));
  calls.push_back(Logout());
  ExpectCalls(calls);
  EXPECT_STREQ(record().pszKeyName, L"a name");
  EXPECT_EQ(record().cbKeyName, 6u) << "the terminator is not counted here";
  EXPECT_FALSE(token().SlotAt(0).loggedIn);
  EXPECT_EQ(ksp().FreeKey(provider_, key_), 0);
  EXPECT_TRUE(token().HasObject(0x103)) << "the token object outlives the handle";
}

TEST_F(ImportKeyTest, LoginFailureEndsANamedImport) {
  Parameters parameters;
  parameters.Add(WideBytes(L"a name"));
  Arguments arguments = Given(PublicBlob(), kPublicBlob, kSilent);
  arguments.parameters = parameters.List();
  kit::DialogRobot robot({[](kit::Dialog& dialog) { dialog.PressCancel(); }});
  kit::MemoryWatch watch;
  EXPECT_EQ(Call(arguments), SCARD_W_CANCELLED_BY_USER);
  EXPECT_EQ(robot.Finish(), 1u) << "the silent flag does not keep the dialog away";
  EXPECT_EQ(key_, kUntouched);
  ExpectLinesWithLogin(Lines(arguments, {kInitializing, kCreating, LoginLine(), kNoLogin}, SCARD_W_CANCELLED_BY_USER));
  ExpectCalls({Random(), "C_GetTokenInfo(slot=11)"});
}

TEST_F(ImportKeyTest, ExponentsOfUpToFourBytesAreFilledUpBehind) {
  struct Case {
    Bytes given;
    Bytes kept;
  };
  for (const Case& one : {Case{{}, {0, 0, 0, 0}}, Case{{3}, {3, 0, 0, 0}}, Case{{1, 2}, {1, 2, 0, 0}},
                          Case{{1, 2, 3}, {1, 2, 3, 0}}, Case{{1, 2, 3, 4}, {1, 2, 3, 4}}}) {
    RepeatRandom();
    Forget();
    Header header;
    header.cbPublicExp = static_cast<std::uint32_t>(one.given.size());
    EXPECT_EQ(Import(PublicBlob(header, one.given)), 0);
    EXPECT_EQ(Bytes(record().PublicExponent, record().PublicExponent + 4), one.kept);
    Created object;
    object.exponent = one.kept;
    ExpectCalls({Random(), Create(object), Logout()});
  }
}

TEST_F(ImportKeyTest, ExponentsOfFiveBytesAndMoreAreRefused) {
  for (const std::uint32_t length : {5u, 6u, 128u, 0x10000u}) {
    Header header;
    header.cbPublicExp = length;
    ExpectRefused(Given(PublicBlob(header, Bytes(length, 1))), kLongExponent, NTE_NOT_SUPPORTED);
    ExpectRefused(Given(PublicBlob(header, Bytes(length, 1)), kPrivateBlob), kLongExponent, NTE_NOT_SUPPORTED);
  }
}

TEST_F(ImportKeyTest, ExportBringsTheKeyBackWithItsExponentReversed) {
  EXPECT_EQ(Import(PublicBlob()), 0);
  Bytes output(156);
  DWORD length = 0;
  EXPECT_EQ(ksp().ExportKey(provider_, key_, 0, kPublicBlob, nullptr, output.data(), 156, &length, 0), 0);
  EXPECT_EQ(output, PublicBlob({kRsa1, 1024, 4, 128, 0, 0}, {0, 1, 0, 1})) << "four bytes are kept of every exponent";
}

TEST_F(ImportKeyTest, ImportedPublicKeyEncrypts) {
  LogIn();
  EXPECT_EQ(Import(PublicBlob()), 0);
  Bytes input = Ascii("text");
  Bytes output(128);
  DWORD length = 0;
  EXPECT_EQ(ksp().Encrypt(provider_, key_, input.data(), 4, nullptr, output.data(), 128, &length, 0), 0);
  EXPECT_EQ(output, token().Ciphertext(record().hPublicKeyObject, input));
}

TEST_F(ImportKeyTest, MagicOfAPublicBlobIsKeptAsItIs) {
  for (const std::uint32_t magic : {kRsa2, 0u, 0xFFFFFFFFu}) {
    Header header;
    header.magic = magic;
    EXPECT_EQ(Import(PublicBlob(header)), 0);
    EXPECT_EQ(record().dwMagic, magic);
    EXPECT_EQ(record().fFinished, 1u);
    EXPECT_EQ(ksp().FreeKey(provider_, key_), NTE_INVALID_HANDLE);
  }
}

TEST_F(ImportKeyTest, PrimesOfAPublicBlobAreIgnored) {
  EXPECT_EQ(Import(PrivateBlob(kRsa1)), 0);
  EXPECT_EQ(record().pbPrime1, nullptr);
  EXPECT_EQ(record().pbPrivateKey, nullptr);
  ExpectCalls({Random(), Create(), Logout()});
}

TEST_F(ImportKeyTest, OverwriteFlagHasNoEffect) {
  token().AddKeyPair(Ascii("Key1"), "taken");
  LogIn();
  Parameters parameters;
  parameters.Add(WideBytes(L"taken"));
  Arguments arguments = Given(PublicBlob(), kPublicBlob, kOverwrite);
  arguments.parameters = parameters.List();
  EXPECT_EQ(Call(arguments), 0);
  EXPECT_EQ(token().Count("C_FindObjectsInit"), 0u);
  EXPECT_EQ(token().Count("C_DestroyObject"), 0u);
  EXPECT_EQ(record().fOverwrite, 0u);
}

TEST_F(ImportKeyTest, DoNotFinalizeDoesNotHoldAPublicKeyBack) {
  EXPECT_EQ(Import(PublicBlob(), kPublicBlob, kDoNotFinalize), 0);
  ExpectCalls({Random(), Create(), Logout()});
}

// --- failures of a public import

class FailingImport : public ImportKeyTest {
 protected:
  // The record and all that was made for it are released, and nobody is logged out.
  void ExpectFails(const Arguments& arguments, const std::vector<Line>& body, SECURITY_STATUS status) {
    key_ = kUntouched;
    Forget();
    {
      kit::MemoryWatch watch;
      EXPECT_EQ(Call(arguments), status);
      EXPECT_TRUE(watch.Live().empty());
      EXPECT_FALSE(watch.FreedContains(std::string_view(reinterpret_cast<const char*>(kModulus.data()), 32)));
    }
    EXPECT_EQ(key_, kUntouched);
    EXPECT_EQ(token().Count("C_Logout"), 0u);
    ExpectLines(Lines(arguments, body, status));
  }
};

TEST_F(FailingImport, RandomNumbers) {
  token().Fail("C_GenerateRandom", CKR_RANDOM_NO_RNG);
  ExpectFails(Given(PublicBlob()), {kNoRandom}, NTE_INTERNAL_ERROR);
  ExpectCalls({Random()});
}

TEST_F(FailingImport, CreationOnTheToken) {
  for (const CK_RV code : {CKR_DEVICE_ERROR, CKR_TEMPLATE_INCONSISTENT, CKR_USER_NOT_LOGGED_IN, CK_RV{0x80000001}}) {
    token().Fail("C_CreateObject", code);
    ExpectFails(Given(PublicBlob()), {kInitializing, kCreating, Number(kCreationFailed, static_cast<LONG>(code))},
                NTE_INTERNAL_ERROR);
    EXPECT_EQ(token().Count("C_CreateObject"), 1u);
  }
}

TEST_F(FailingImport, ModulusLengthsThatAreNotCreated) {
  for (const std::uint32_t bits : {0u, 1u, 7u, 8u, 511u, 520u, 768u, 1023u, 1032u, 1536u, 3072u, 8192u, 16384u}) {
    Header header;
    header.bitLength = bits;
    ExpectFails(Given(PublicBlob(header)), {kInitializing, kCreating, Number(kCreationFailed, 7)}, NTE_INTERNAL_ERROR);
    ExpectCalls({Random()});
  }
}

TEST_F(FailingImport, NameWithoutTerminator) {
  Parameters parameters;
  parameters.Add({0x41, 0x42, 0x43});
  Arguments arguments = Given(PublicBlob());
  arguments.parameters = parameters.List();
  ExpectFails(arguments, {kNoName}, NTE_INVALID_PARAMETER);
  ExpectCalls({});
}

TEST_F(FailingImport, NoMemoryForTheRecord) {
  const Arguments arguments = Given(PublicBlob());
  {
    kit::MemoryWatch watch;
    watch.FailWhen([](std::size_t size, std::size_t) { return size == sizeof(kit::KeyRecord); });
    EXPECT_EQ(Call(arguments), NTE_NO_MEMORY);
  }
  EXPECT_EQ(key_, kUntouched);
  ExpectLines(Lines(arguments, {}, NTE_NO_MEMORY));
}

TEST_F(FailingImport, NameIsWipedBeforeItsMemoryIsReleased) {
  Parameters parameters;
  parameters.Add(WideBytes(L"a name to be wiped"));
  token().Fail("C_GenerateRandom", CKR_DEVICE_ERROR);
  Arguments arguments = Given(PublicBlob());
  arguments.parameters = parameters.List();
  kit::MemoryWatch watch;
  EXPECT_EQ(Call(arguments), NTE_INTERNAL_ERROR);
  EXPECT_FALSE(watch.FreedContainsWide("a name to be wiped"));
  EXPECT_TRUE(watch.Live().empty());
}

TEST_F(FailingImport, EachAllocationMayFail) {
  LogIn();
  ThrowOnce();
  Parameters parameters;
  parameters.Add(WideBytes(L"a name"));
  for (const wchar_t* type : {kPublicBlob, kPrivateBlob}) {
    std::size_t nth = 0;
    bool reached = true;
    bool refused = false;
    while (reached) {
      Arguments arguments = Given(type == kPublicBlob ? PublicBlob() : PrivateBlob(), type);
      arguments.parameters = parameters.List();
      SECURITY_STATUS status = 0;
      {
        kit::MemoryWatch watch;
        watch.FailAllocation(++nth);
        status = Call(arguments);
        reached = watch.Allocations() >= nth;
        if (status != 0) {
          refused = true;
          EXPECT_TRUE(watch.Live().empty()) << nth;
          EXPECT_FALSE(watch.FreedContains(std::string_view(reinterpret_cast<const char*>(kPrime1.data()), 32)));
        }
      }
      // A line that cannot be formed is left out, and the work goes on without it.
      EXPECT_TRUE(status == 0 || status == NTE_NO_MEMORY || status == NTE_INTERNAL_ERROR) << nth << ": " << status;
      EXPECT_EQ(key_ == kUntouched, status != 0) << nth;
      ASSERT_LT(nth, 1000u);
      Forget();
    }
    EXPECT_TRUE(refused);
  }
}

// --- private blobs

TEST_F(ImportKeyTest, PrivateBlobReturnsSuccessAndAHandleThatIsRefused) {
  const Arguments arguments = Given(PrivateBlob(), kPrivateBlob);
  EXPECT_EQ(Call(arguments), 0);
  ASSERT_NE(key_, kUntouched);
  EXPECT_EQ(record().dwMagic, kRsa2);
  EXPECT_EQ(record().fFinished, 0u);
  ExpectLines(Lines(arguments,
                    Nested({kFinalizing}, FinalizeLines({"NTE_INVALID_HANDLE: pKey is NULL"}, NTE_INVALID_HANDLE)), 0));
  ExpectCalls({Logout()});

  BYTE bytes[256] = {};
  DWORD length = 0;
  EXPECT_EQ(ksp().FinalizeKey(provider_, key_, 0), NTE_INVALID_HANDLE);
  EXPECT_EQ(ksp().SignHash(provider_, key_, nullptr, bytes, 20, bytes, 128, &length, 0), NTE_INVALID_HANDLE);
  EXPECT_EQ(ksp().VerifySignature(provider_, key_, nullptr, bytes, 20, bytes, 128, 0), NTE_INVALID_HANDLE);
  EXPECT_EQ(ksp().Encrypt(provider_, key_, bytes, 5, nullptr, bytes, 128, &length, 0), NTE_INVALID_HANDLE);
  EXPECT_EQ(ksp().Decrypt(provider_, key_, bytes, 128, nullptr, bytes, 128, &length, 0), NTE_INVALID_HANDLE);
  EXPECT_EQ(ksp().GetKeyProperty(provider_, key_, L"Length", bytes, 4, &length, 0), NTE_INVALID_HANDLE);
  EXPECT_EQ(ksp().SetKeyProperty(provider_, key_, L"Length", bytes, 4, 0), NTE_INVALID_HANDLE);
  EXPECT_EQ(ksp().ExportKey(provider_, key_, 0, kPublicBlob, nullptr, bytes, 256, &length, 0), NTE_INTERNAL_ERROR);
  const NCRYPT_KEY_HANDLE refused = key_;
  Arguments wrapped = Given(PublicBlob());
  wrapped.importKey = refused;
  EXPECT_EQ(Call(wrapped), NTE_INVALID_HANDLE);
}

TEST_F(ImportKeyTest, HandleOfAPrivateBlobIsNotFreedEither) {
  EXPECT_EQ(Import(PrivateBlob(), kPrivateBlob), 0);
  EXPECT_EQ(ksp().DeleteKey(provider_, key_, 0), NTE_INVALID_HANDLE);
  EXPECT_EQ(ksp().FreeKey(provider_, key_), NTE_INVALID_HANDLE);
  EXPECT_NE(record().pbPrivateKey, nullptr);
}

TEST_F(ImportKeyTest, PrivateBlobIsKeptWithItsPrimes) {
  EXPECT_EQ(Import(PrivateBlob(), kPrivateBlob, kDoNotFinalize), 0);
  EXPECT_EQ(record().dwKeyBitLength, 1024u);
  EXPECT_EQ(record().dwAlgID, 0u);
  EXPECT_EQ(record().pszKeyBlobType, nullptr);
  EXPECT_EQ(record().hPublicKeyObject, 0u);
  EXPECT_EQ(record().hPrivateKeyObject, 0u);
  EXPECT_EQ(Bytes(record().PublicExponent, record().PublicExponent + 4), (Bytes{1, 0, 1, 0}));
  EXPECT_EQ(Bytes(record().pbModulus, record().pbModulus + 128), kModulus);
  EXPECT_EQ(Bytes(record().pbPrime1, record().pbPrime1 + 64), kPrime1);
  EXPECT_EQ(Bytes(record().pbPrime2, record().pbPrime2 + 64), kPrime2);
  ASSERT_EQ(record().cbPrivateKey, PrivateBlob().size());
  EXPECT_EQ(Bytes(record().pbPrivateKey, record().pbPrivateKey + record().cbPrivateKey), PrivateBlob());
  for (const BYTE* part :
       {record().pbExponent1, record().pbExponent2, record().pbCoefficient, record().pbPrivateExponent}) {
    EXPECT_EQ(part, nullptr) << "an import does not read behind the primes";
  }
}

TEST_F(ImportKeyTest, BytesBehindThePrimesAreOnlyKept) {
  const Bytes blob = Joined({PrivateBlob(), Numbers(64 * 3 + 128, 9)});
  EXPECT_EQ(Import(blob, kPrivateBlob, kDoNotFinalize), 0);
  EXPECT_EQ(record().pbCoefficient, nullptr);
  EXPECT_EQ(Bytes(record().pbPrivateKey, record().pbPrivateKey + record().cbPrivateKey), blob);
}

TEST_F(ImportKeyTest, DoNotFinalizeLeavesTheFinalizationOut) {
  const Arguments arguments = Given(PrivateBlob(), kPrivateBlob, kDoNotFinalize);
  EXPECT_EQ(Call(arguments), 0);
  ExpectLines(Lines(arguments, {}, 0));
  ExpectCalls({Logout()});
}

// With the magic of a public blob the record passes the handle test, and the finalization goes its way: the public
// object is made, the private one is not, and the import does not look.
TEST_F(ImportKeyTest, PrivateBlobWithThePublicMagicIsFinalizedAsFarAsItGoes) {
  LogIn();
  const Arguments arguments = Given(PrivateBlob(kRsa1), kPrivateBlob);
  EXPECT_EQ(Call(arguments), 0);
  ExpectLinesWithLogin(Lines(
      arguments,
      Nested({kFinalizing},
             FinalizeLines({"Checking if key is not yet finalized", LoginLine(), "Checking if overwrite flag is set",
                            "Key is imported", kInitializing, "Initializing private key attributes", kCreating,
                            "Creating private key", Number("Private key creation failed: ", 400)},
                           NTE_INTERNAL_ERROR)),
      0));
  std::vector<std::string> calls = CallsAfterLogin();
  calls.push_back(Random());
  calls.push_back(Create());
  calls.push_back(Logout());
  ExpectCalls(calls);
  EXPECT_EQ(record().fFinished, 0u);
  EXPECT_EQ(record().hPublicKeyObject, 0u);
  BYTE bytes[128] = {};
  DWORD length = 0;
  EXPECT_EQ(ksp().SignHash(provider_, key_, nullptr, bytes, 20, bytes, 128, &length, 0), NTE_BAD_KEY_STATE);
  EXPECT_EQ(ksp().FreeKey(provider_, key_), 0);
}

TEST_F(ImportKeyTest, NamedPrivateBlobIsFinalizedUnderItsName) {
  LogIn();
  Parameters parameters;
  parameters.Add(WideBytes(L"a name"));
  Arguments arguments = Given(PrivateBlob(kRsa1), kPrivateBlob);
  arguments.parameters = parameters.List();
  EXPECT_EQ(Call(arguments), 0);
  // The count that the conversion reports has the terminator.
  Created object;
  object.onToken = true;
  object.label = std::string("a name\0", 7);
  std::vector<std::string> calls = CallsAfterLogin();
  calls.push_back(Random());
  calls.push_back(Create(object));
  calls.push_back(Logout());
  ExpectCalls(calls);
}

TEST_F(ImportKeyTest, CancelledFinalizationIsNotLookedAt) {
  kit::DialogRobot robot({[](kit::Dialog& dialog) { dialog.PressCancel(); }});
  EXPECT_EQ(Import(PrivateBlob(kRsa1), kPrivateBlob), 0);
  EXPECT_EQ(robot.Finish(), 1u);
  EXPECT_NE(key_, kUntouched);
}

TEST_F(ImportKeyTest, FreeKeyWipesTheKeptBlob) {
  EXPECT_EQ(Import(PrivateBlob(kRsa1), kPrivateBlob, kDoNotFinalize), 0);
  const void* const kept = record().pbPrivateKey;
  kit::MemoryWatch watch;
  EXPECT_EQ(ksp().FreeKey(provider_, key_), 0);
  EXPECT_TRUE(WipedAndFreed(watch, kept, PrivateBlob().size()));
}

TEST_F(ImportKeyTest, NoPartOfAPrivateBlobIsLeftInReleasedMemory) {
  LogIn();
  kit::MemoryWatch watch;
  EXPECT_EQ(Import(PrivateBlob(), kPrivateBlob), 0);
  EXPECT_EQ(Import(PrivateBlob(kRsa1), kPrivateBlob), 0);
  token().Fail("C_GenerateRandom", CKR_DEVICE_ERROR);
  EXPECT_EQ(Import(PrivateBlob(), kPublicBlob), NTE_INTERNAL_ERROR);
  Header longExponent{kRsa2, 1024, 5, 128, 64, 64};
  EXPECT_EQ(Import(Joined({HeaderBytes(longExponent), Bytes(5, 1), kModulus, kPrime1, kPrime2}), kPrivateBlob),
            NTE_NOT_SUPPORTED);
  Header tooLong{kRsa2, 1024, 3, 128, 64, 0xFFFFFFFF};
  EXPECT_EQ(Import(Joined({HeaderBytes(tooLong), {1, 0, 1}, kModulus, kPrime1, kPrime2}), kPrivateBlob),
            NTE_INTERNAL_ERROR);
  for (const Bytes& part : {kPrime1, kPrime2, kModulus})
    EXPECT_FALSE(watch.FreedContains(std::string_view(reinterpret_cast<const char*>(part.data()), 16)));
}

// --- log out

TEST_F(ImportKeyTest, LogoutWipesTheProvidersPin) {
  BYTE* const pin = Block("PINPINPINPIN");
  providerRecord().pPinCache = reinterpret_cast<wchar_t*>(pin);
  providerRecord().cchPinCache = 5;
  kit::MemoryWatch watch;
  EXPECT_EQ(Import(PublicBlob()), 0);
  EXPECT_EQ(providerRecord().pPinCache, nullptr);
  EXPECT_EQ(providerRecord().cchPinCache, 0u);
  EXPECT_EQ(Bytes(pin, pin + 12), Joined({Bytes(5, 0), Ascii("NPINPIN")})) << "the characters are taken for bytes";
  EXPECT_FALSE(watch.WasFreed(pin)) << "and the memory stays";
  std::free(pin);
}

TEST_F(ImportKeyTest, NobodyLoggedInCountsAsLoggedOut) {
  BYTE* const pin = Block("PIN!");
  providerRecord().pPinCache = reinterpret_cast<wchar_t*>(pin);
  providerRecord().cchPinCache = 2;
  EXPECT_EQ(Import(PublicBlob()), 0);
  EXPECT_EQ(token().Calls().back().result, CK_RV{CKR_USER_NOT_LOGGED_IN});
  EXPECT_EQ(providerRecord().pPinCache, nullptr);
  std::free(pin);
}

TEST_F(ImportKeyTest, FailingLogoutIsNotLookedAtAndLeavesThePin) {
  for (const CK_RV code : {CKR_DEVICE_ERROR, CKR_SESSION_HANDLE_INVALID}) {
    BYTE* const pin = Block("PIN!");
    providerRecord().pPinCache = reinterpret_cast<wchar_t*>(pin);
    providerRecord().cchPinCache = 2;
    token().Fail("C_Logout", code);
    EXPECT_EQ(Import(PublicBlob()), 0);
    EXPECT_NE(key_, kUntouched);
    EXPECT_EQ(providerRecord().pPinCache, reinterpret_cast<wchar_t*>(pin));
    EXPECT_EQ(providerRecord().cchPinCache, 2u);
    EXPECT_EQ(Bytes(pin, pin + 4), Ascii("PIN!"));
    providerRecord().pPinCache = nullptr;
    providerRecord().cchPinCache = 0;
    std::free(pin);
  }
}

TEST_F(ImportKeyTest, TheHandleIsHandedOutBeforeTheLogout) {
  NCRYPT_KEY_HANDLE seen = 0;
  token().Before("C_Logout", [&](const fake::Call&) { seen = key_; });
  EXPECT_EQ(Import(PublicBlob()), 0);
  EXPECT_EQ(seen, key_);
}

TEST_F(ImportKeyTest, TheHandleIsHandedOutWhenAllElseIsDone) {
  LogIn();
  std::vector<NCRYPT_KEY_HANDLE> seen;
  for (const char* function : {"C_GenerateRandom", "C_CreateObject"})
    token().Before(function, [&](const fake::Call&) { seen.push_back(key_); });
  EXPECT_EQ(Import(PublicBlob()), 0);
  EXPECT_EQ(Import(PrivateBlob(kRsa1), kPrivateBlob), 0);
  EXPECT_EQ(seen, std::vector<NCRYPT_KEY_HANDLE>(4, kUntouched));
}

TEST_F(ImportKeyTest, ThePinCacheOfTheProcessOutlivesTheLogout) {
  LogIn();
  EXPECT_EQ(Import(PublicBlob()), 0);
  EXPECT_FALSE(token().SlotAt(0).loggedIn);
  BYTE hash[20] = {};
  DWORD length = 0;
  kit::DialogRobot robot;
  EXPECT_EQ(ksp().SignHash(provider_, keys_.front(), nullptr, hash, 20, nullptr, 0, &length, 0), 0);
  EXPECT_EQ(robot.Finish(), 0u) << "no PIN is asked for again";
}

// --- names from the parameter list

class NamedImport : public ImportKeyTest {
 protected:
  // The name of the record, or "(none)".
  std::wstring NameOf(Parameters& parameters) {
    EXPECT_EQ(ImportNamed(parameters), 0);
    if (key_ == kUntouched) return L"(failed)";
    return record().pszKeyName ? record().pszKeyName : L"(none)";
  }
  std::wstring NameOf(const Bytes& data) {
    Parameters parameters;
    parameters.Add(data);
    return NameOf(parameters);
  }
};

TEST_F(NamedImport, NoParameterListNoName) {
  EXPECT_EQ(Import(PrivateBlob(), kPrivateBlob, kDoNotFinalize), 0);
  EXPECT_EQ(record().pszKeyName, nullptr);
  EXPECT_EQ(record().cbKeyName, 0u);
}

TEST_F(NamedImport, NameOfTheBuffer) {
  EXPECT_EQ(NameOf(WideBytes(L"Key1")), L"Key1");
  EXPECT_EQ(record().cbKeyName, 4u);
  EXPECT_EQ(NameOf(WideBytes(L"Gr\xFC\xDF"
                             L"e \x20AC")),
            L"Gr\xFC\xDF"
            L"e \x20AC");
  EXPECT_EQ(record().cbKeyName, 7u);
}

TEST_F(NamedImport, TheRecordHasACopy) {
  Parameters parameters;
  parameters.Add(WideBytes(L"Key1"));
  EXPECT_EQ(NameOf(parameters), L"Key1");
  EXPECT_NE(static_cast<void*>(record().pszKeyName), parameters.buffers()[0].pvBuffer);
}

TEST_F(NamedImport, LogsNothingOfItsOwn) {
  Parameters parameters;
  parameters.Add(WideBytes(L"Key1"));
  Arguments arguments = Given(PrivateBlob(), kPrivateBlob, kDoNotFinalize);
  arguments.parameters = parameters.List();
  EXPECT_EQ(Call(arguments), 0);
  ExpectLines(Lines(arguments, {}, 0));
  ExpectCalls({Logout()});
}

TEST_F(NamedImport, TheLastNameWins) {
  Parameters parameters;
  parameters.Add(WideBytes(L"first")).Add(WideBytes(L"second")).Add(WideBytes(L"third")).Add(Ascii("other"), 10);
  EXPECT_EQ(NameOf(parameters), L"third");
  EXPECT_EQ(record().cbKeyName, 5u);
}

TEST_F(NamedImport, BuffersThatAreNoNameAreLeftOut) {
  Parameters parameters;
  parameters.Add(WideBytes(L"name"))
      .Add(Ascii("xyz"), 0)
      .Add(Ascii("xyz"), 44)
      .Add(Ascii("xyz"), 46)
      .Add(Ascii("x"))
      .Add({});
  EXPECT_EQ(NameOf(parameters), L"name");

  parameters.Add(WideBytes(L"without data"));
  Arguments arguments = Given(PrivateBlob(), kPrivateBlob, kDoNotFinalize);
  arguments.parameters = parameters.List();
  parameters.buffers().back().pvBuffer = nullptr;
  EXPECT_EQ(Call(arguments), 0);
  EXPECT_STREQ(record().pszKeyName, L"name");
}

TEST_F(NamedImport, OnlyBuffersThatAreNoNameLeaveTheKeyNameless) {
  Parameters parameters;
  parameters.Add(WideBytes(L"name"), 46).Add({0});
  EXPECT_EQ(NameOf(parameters), L"(none)");
  EXPECT_EQ(record().cbKeyName, 0u);
  Parameters empty;
  EXPECT_EQ(NameOf(empty), L"(none)");
}

TEST_F(NamedImport, ListsWithoutBuffers) {
  for (const ULONG count : {0ul, 1ul, 0xFFFFFFFFul}) {
    NCryptBufferDesc list{0, count, nullptr};
    Arguments arguments = Given(PrivateBlob(), kPrivateBlob, kDoNotFinalize);
    arguments.parameters = &list;
    EXPECT_EQ(Call(arguments), 0);
    EXPECT_EQ(record().pszKeyName, nullptr);
  }
}

TEST_F(NamedImport, AnEmptyNameIsAName) {
  LogIn();
  Parameters parameters;
  parameters.Add({0, 0});
  Arguments arguments = Given(PublicBlob());
  arguments.parameters = parameters.List();
  EXPECT_EQ(Call(arguments), 0);
  ASSERT_NE(record().pszKeyName, nullptr);
  EXPECT_STREQ(record().pszKeyName, L"");
  EXPECT_EQ(record().cbKeyName, 0u);
  Created object;
  object.onToken = true;
  EXPECT_EQ(token().Texts()[3], Create(object)) << "a token object with an empty label";
}

TEST_F(NamedImport, NamesWithoutAnyZeroByteAreRefused) {
  for (const Bytes& data : {Bytes{0x41, 0x42}, Bytes{0xAC, 0x20, 0xAC, 0x20}, Bytes(1000, 0x41)}) {
    Parameters parameters;
    parameters.Add(data);
    EXPECT_EQ(ImportNamed(parameters), NTE_INVALID_PARAMETER);
    EXPECT_EQ(key_, kUntouched);
  }
}

TEST_F(NamedImport, OneBadNameRefusesTheImportThoughALaterOneIsGood) {
  Parameters parameters;
  parameters.Add({0x41, 0x42}).Add(WideBytes(L"good"));
  EXPECT_EQ(ImportNamed(parameters), NTE_INVALID_PARAMETER);
  Parameters after;
  after.Add(WideBytes(L"good")).Add({0x41, 0x42});
  EXPECT_EQ(ImportNamed(after), NTE_INVALID_PARAMETER);
}

// Any zero byte satisfies the check, as the high half of a letter; the name then ends with its data.
TEST_F(NamedImport, NamesWithoutATerminatorEndWithTheirData) {
  EXPECT_EQ(NameOf(WideBytes(L"Key1", false)), L"Key1");
  EXPECT_EQ(record().cbKeyName, 4u);
  EXPECT_EQ(NameOf({'K', 0, 'x'}), L"Kx") << "half a character";
  EXPECT_EQ(NameOf({0, 0x41}), std::wstring(1, wchar_t{0x4100}));
}

TEST_F(NamedImport, WhatFollowsTheTerminatorIsNotPartOfTheName) {
  EXPECT_EQ(NameOf(Joined({WideBytes(L"Key1"), Bytes(30, 0x41)})), L"Key1");
}

TEST_F(NamedImport, LengthAtItsMaximumIsNotFollowed) {
  Parameters parameters;
  parameters.Add(WideBytes(L"Key1"));
  Arguments arguments = Given(PrivateBlob(), kPrivateBlob, kDoNotFinalize);
  arguments.parameters = parameters.List();
  parameters.buffers()[0].cbBuffer = 0xFFFFFFFF;
  EXPECT_EQ(Call(arguments), 0);
  EXPECT_STREQ(record().pszKeyName, L"Key1");
}

TEST_F(NamedImport, NameAtAnOddAddress) {
  Bytes data = Joined({{0}, WideBytes(L"Key1")});
  NCryptBuffer buffer{10, kKeyNameBuffer, data.data() + 1};
  NCryptBufferDesc list{0, 1, &buffer};
  Arguments arguments = Given(PrivateBlob(), kPrivateBlob, kDoNotFinalize);
  arguments.parameters = &list;
  EXPECT_EQ(Call(arguments), 0);
  EXPECT_STREQ(record().pszKeyName, L"Key1");
}

// Only the first 127 characters are searched for the terminator; the name itself is taken whole.
TEST_F(NamedImport, LengthOfLongNamesIsZero) {
  struct Case {
    std::size_t length;
    ULONG counted;
  };
  for (const Case& one : {Case{1, 1}, Case{125, 125}, Case{126, 126}, Case{127, 0}, Case{128, 0}, Case{1000, 0}}) {
    EXPECT_EQ(NameOf(WideBytes(std::wstring(one.length, L'n'))), std::wstring(one.length, L'n'));
    EXPECT_EQ(record().cbKeyName, one.counted) << one.length;
  }
}

// The label has the name's length, also where the name has no narrow form of at most 62 characters.
TEST_F(NamedImport, LabelsOfPublicKeys) {
  struct Case {
    std::wstring name;
    std::string label;
  };
  const std::string letters(62, 'n');
  for (const Case& one : {Case{std::wstring(62, L'n'), letters}, Case{std::wstring(63, L'n'), std::string(63, '\0')},
                          Case{std::wstring(126, L'n'), std::string(126, '\0')}, Case{std::wstring(127, L'n'), ""},
                          Case{std::wstring(500, L'n'), ""}, Case{L"\x20AC uro", std::string(5, '\0')},
                          Case{L"Gr\xFC\xDF", "Gr\xFC\xDF"}}) {
    token().Reset();
    AddReader();
    ksp().FreeProvider(provider_);
    provider_ = OpenProvider();
    LogIn();
    Parameters parameters;
    parameters.Add(WideBytes(one.name));
    Arguments arguments = Given(PublicBlob());
    arguments.parameters = parameters.List();
    EXPECT_EQ(Call(arguments), 0);
    Created object;
    object.onToken = true;
    object.label = one.label;
    ASSERT_EQ(token().Texts().size(), 5u);
    EXPECT_EQ(token().Texts()[3], Create(object));
  }
}

// --- wrapped blobs

class WrappedImport : public ImportKeyTest {
 protected:
  void SetUp() override {
    ImportKeyTest::SetUp();
    wrapping_ = token().AddKeyPair(Ascii("Wrap"), "Wrap", 2048);
    wrappingKey_ = Open(L"Wrap");
  }
  // What follows the first 8 bytes is encrypted with the wrapping key.
  Bytes Wrapped(const Bytes& blob) const {
    return Joined({Bytes(blob.begin(), blob.begin() + 8),
                   token().Ciphertext(wrapping_.publicKey, Bytes(blob.begin() + 8, blob.end()))});
  }
  Arguments GivenWrapped(Bytes data, const wchar_t* type = kPublicBlob, DWORD flags = 0) {
    Arguments arguments = Given(std::move(data), type, flags);
    arguments.importKey = wrappingKey_;
    return arguments;
  }
  static std::string Init() { return "C_DecryptInit(session=0x51, CKM_RSA_PKCS[NULL,0], key=0x102)"; }
  static std::string Decrypt(const Bytes& data, const std::string& out) {
    return "C_Decrypt(session=0x51, data=" + fake::HexOf(data) + ", out=" + out + ")";
  }
  // A private key small enough to be wrapped.
  static Bytes SmallPrivateBlob() {
    return Joined(
        {HeaderBytes({kRsa2, 512, 3, 64, 32, 32}), {1, 0, 1}, Numbers(64, 4), Numbers(32, 5), Numbers(32, 6)});
  }

  fake::KeyPair wrapping_;
  NCRYPT_KEY_HANDLE wrappingKey_ = 0;
};

TEST_F(WrappedImport, DataBehindItsFirstEightBytesIsDecrypted) {
  CachePin(provider_, wrappingKey_);
  const Arguments arguments = GivenWrapped(Wrapped(PublicBlob()));
  EXPECT_EQ(Call(arguments), 0);
  const Bytes cipher(blob_.begin() + 8, blob_.end());
  ExpectCalls(
      {Init(), Decrypt(cipher, "NULL"), Init(), Decrypt(cipher, "PTR, room=147"), Random(), Create(), Logout()});
  ExpectLines(Lines(arguments, {kInitializing, kCreating}, 0));
  EXPECT_EQ(record().dwMagic, kRsa1);
  EXPECT_EQ(record().dwKeyBitLength, 1024u);
  EXPECT_EQ(Bytes(record().pbModulus, record().pbModulus + 128), kModulus);
}

TEST_F(WrappedImport, PrivateBlobIsKeptInPlainForm) {
  CachePin(provider_, wrappingKey_);
  EXPECT_EQ(Call(GivenWrapped(Wrapped(SmallPrivateBlob()), kPrivateBlob, kDoNotFinalize)), 0);
  EXPECT_EQ(Bytes(record().pbPrivateKey, record().pbPrivateKey + record().cbPrivateKey), SmallPrivateBlob());
  EXPECT_EQ(Bytes(record().pbPrime1, record().pbPrime1 + 32), Numbers(32, 5));
}

TEST_F(WrappedImport, PlainBytesAreWipedBeforeTheirMemoryIsReleased) {
  CachePin(provider_, wrappingKey_);
  const Bytes plain = SmallPrivateBlob();
  kit::MemoryWatch watch;
  EXPECT_EQ(Call(GivenWrapped(Wrapped(plain), kPrivateBlob, kDoNotFinalize)), 0);
  token().Fail("C_GenerateRandom", CKR_DEVICE_ERROR);
  EXPECT_EQ(Call(GivenWrapped(Wrapped(plain), kPublicBlob)), NTE_INTERNAL_ERROR);
  for (std::size_t start : {std::size_t{27}, std::size_t{91}, std::size_t{123}}) {
    EXPECT_FALSE(watch.FreedContains(std::string_view(reinterpret_cast<const char*>(plain.data()) + start, 16)))
        << start;
  }
}

// No login is made for it: the session has to be logged in already.
TEST_F(WrappedImport, WithoutLoginTheTokenRefuses) {
  const Arguments arguments = GivenWrapped(Wrapped(PublicBlob()));
  EXPECT_EQ(Call(arguments), NTE_INTERNAL_ERROR);
  ExpectCalls({Init()});
  ExpectLines(Lines(arguments, {}, NTE_INTERNAL_ERROR));
  EXPECT_EQ(key_, kUntouched);
}

TEST_F(WrappedImport, AnInvalidImportKeyIsRefused) {
  const Bytes data = Wrapped(PublicBlob());
  for (kit::KeyRecord& broken : BrokenRecords(*kit::KeyOf(wrappingKey_))) {
    Arguments arguments = GivenWrapped(data);
    arguments.importKey = reinterpret_cast<NCRYPT_KEY_HANDLE>(&broken);
    ExpectRefused(arguments, kNoImportKey, NTE_INVALID_HANDLE);
  }
  // The name is looked at first.
  Parameters parameters;
  parameters.Add({1, 1});
  Arguments arguments = GivenWrapped(data);
  arguments.importKey = provider_;
  arguments.parameters = parameters.List();
  ExpectRefused(arguments, kNoName, NTE_INVALID_PARAMETER);
  arguments.parameters = nullptr;
  ExpectRefused(arguments, kNoImportKey, NTE_INVALID_HANDLE);
}

TEST_F(WrappedImport, ImportKeyWithoutAPrivateObject) {
  kit::KeyOf(wrappingKey_)->hPrivateKeyObject = 0;
  const Arguments arguments = GivenWrapped(Wrapped(PublicBlob()));
  EXPECT_EQ(Call(arguments), NTE_INVALID_PARAMETER);
  ExpectCalls({});
  ExpectLines(Lines(arguments, {}, NTE_INVALID_PARAMETER));
}

TEST_F(WrappedImport, FailingDecryptionsEndWithTheirStatus) {
  CachePin(provider_, wrappingKey_);
  struct Case {
    const char* function;
    CK_RV code;
    std::size_t nth;
    SECURITY_STATUS status;
  };
  for (const Case& one :
       {Case{"C_DecryptInit", 0x68, 1, NTE_PERM}, Case{"C_DecryptInit", 0x82, 1, NTE_INVALID_HANDLE},
        Case{"C_DecryptInit", 0xB3, 2, NTE_INVALID_HANDLE}, Case{"C_DecryptInit", 0x30, 2, NTE_INTERNAL_ERROR},
        Case{"C_Decrypt", 0x40, 1, NTE_INTERNAL_ERROR}, Case{"C_Decrypt", 0x40, 2, NTE_INTERNAL_ERROR},
        Case{"C_Decrypt", 0x150, 1, NTE_BUFFER_TOO_SMALL}, Case{"C_Decrypt", 0x150, 2, NTE_BUFFER_TOO_SMALL}}) {
    Forget();
    token().Fail(one.function, one.code, one.nth);
    const Arguments arguments = GivenWrapped(Wrapped(PublicBlob()));
    {
      kit::MemoryWatch watch;
      EXPECT_EQ(Call(arguments), one.status) << one.function << " " << one.code;
      EXPECT_TRUE(watch.Live().empty());
    }
    EXPECT_EQ(key_, kUntouched);
    EXPECT_EQ(token().Count(one.function), one.nth);
    EXPECT_EQ(token().Count("C_Logout"), 0u);
    ExpectLines(Lines(arguments, {}, one.status));
    token().ClearScript();
  }
}

// A length query may name more room than the plain text takes in the end (PKCS#11 v2.40 5.2).
TEST_F(WrappedImport, BlobEndsWithThePlainText) {
  CachePin(provider_, wrappingKey_);
  const fake::ListGuard guard;
  static CK_C_Decrypt decrypt;
  decrypt = token().List()->standard.C_Decrypt;
  token().List()->standard.C_Decrypt = [](CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG cbData, CK_BYTE* out,
                                          CK_ULONG* length) -> CK_RV {
    const CK_RV result = decrypt(session, data, cbData, out, length);
    if (!out) *length += 100;
    return result;
  };
  const Bytes plain = SmallPrivateBlob();
  EXPECT_EQ(Call(GivenWrapped(Wrapped(plain), kPrivateBlob, kDoNotFinalize)), 0);
  const Bytes cipher(blob_.begin() + 8, blob_.end());
  const std::string room = "PTR, room=" + std::to_string(plain.size() - 8 + 100);
  ExpectCalls({Init(), Decrypt(cipher, "NULL"), Init(), Decrypt(cipher, room), Logout()});
  EXPECT_EQ(Bytes(record().pbPrivateKey, record().pbPrivateKey + record().cbPrivateKey), plain);
}

TEST_F(WrappedImport, LengthsThatTheTokenMakesUp) {
  CachePin(provider_, wrappingKey_);
  const fake::ListGuard guard;
  static CK_C_Decrypt decrypt;
  static CK_ULONG answered;
  decrypt = token().List()->standard.C_Decrypt;
  // More bytes than there was room for.
  token().List()->standard.C_Decrypt = [](CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG cbData, CK_BYTE* out,
                                          CK_ULONG* length) -> CK_RV {
    const CK_RV result = decrypt(session, data, cbData, out, length);
    if (out) *length += 1000;
    return result;
  };
  EXPECT_EQ(Call(GivenWrapped(Wrapped(SmallPrivateBlob()), kPrivateBlob, kDoNotFinalize)), 0);
  EXPECT_EQ(Bytes(record().pbPrivateKey, record().pbPrivateKey + record().cbPrivateKey), SmallPrivateBlob());
  // More room than any plain text takes.
  token().List()->standard.C_Decrypt = [](CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG cbData, CK_BYTE*,
                                          CK_ULONG* length) -> CK_RV {
    const CK_RV result = decrypt(session, data, cbData, nullptr, length);
    *length = answered;
    return result;
  };
  for (const CK_ULONG length : {CK_ULONG{kLargestBlock - 7}, CK_ULONG{0xFFFFFFF8}, CK_ULONG{0xFFFFFFFF}}) {
    answered = length;
    token().SlotAt(0).loggedIn = true;
    token().ClearCalls();
    EXPECT_EQ(Call(GivenWrapped(Wrapped(SmallPrivateBlob()), kPrivateBlob, kDoNotFinalize)), NTE_NO_MEMORY) << length;
    EXPECT_EQ(key_, kUntouched);
    EXPECT_EQ(token().Count("C_Decrypt"), 1u) << "the length alone is asked for";
  }
}

// Of data that ends with the clear bytes nothing is left to decrypt: the token is asked with no bytes.
TEST_F(WrappedImport, ShortData) {
  CachePin(provider_, wrappingKey_);
  for (const std::size_t length : {std::size_t{1}, std::size_t{7}, std::size_t{8}}) {
    Forget();
    Bytes data = PublicBlob();
    data.resize(length);
    EXPECT_EQ(Call(GivenWrapped(data)), NTE_INTERNAL_ERROR);
    ExpectCalls({Init(), Decrypt({}, "NULL")});
  }
}

TEST_F(WrappedImport, ATokenThatDecryptsNothingGivesNothing) {
  CachePin(provider_, wrappingKey_);
  token().FailAlways("C_Decrypt", CKR_OK);  // says yes and leaves the length at 0
  const Bytes data = HeaderBytes({});
  EXPECT_EQ(Call(GivenWrapped(Bytes(data.begin(), data.begin() + 8), kPrivateBlob, kDoNotFinalize)), 0);
  EXPECT_EQ(record().dwKeyBitLength, 1024u);
  EXPECT_EQ(record().cbPrivateKey, 8u);
  EXPECT_EQ(Bytes(record().pbModulus, record().pbModulus + 128), Bytes(128, 0));
  token().SlotAt(0).loggedIn = true;  // the import has logged out
  EXPECT_EQ(Call(GivenWrapped({'R', 'S', 'A'}, kPrivateBlob, kDoNotFinalize)), 0);
  EXPECT_EQ(record().cbPrivateKey, 8u);
  EXPECT_EQ(record().dwMagic, 0x00415352u);
}

TEST_F(WrappedImport, EachAllocationMayFail) {
  CachePin(provider_, wrappingKey_);
  ThrowOnce();
  const Bytes plain = SmallPrivateBlob();
  std::size_t nth = 0;
  bool reached = true;
  bool refused = false;
  while (reached) {
    const Arguments arguments = GivenWrapped(Wrapped(plain), kPrivateBlob, kDoNotFinalize);
    token().SlotAt(0).loggedIn = true;  // an import that succeeded has logged out
    SECURITY_STATUS status = 0;
    {
      kit::MemoryWatch watch;
      watch.FailAllocation(++nth);
      status = Call(arguments);
      reached = watch.Allocations() >= nth;
      if (status != 0) {
        refused = true;
        EXPECT_TRUE(watch.Live().empty()) << nth;
      }
      EXPECT_FALSE(watch.FreedContains(std::string_view(reinterpret_cast<const char*>(plain.data()) + 91, 16))) << nth;
    }
    EXPECT_TRUE(status == 0 || status == NTE_NO_MEMORY || status == NTE_INTERNAL_ERROR) << nth << ": " << status;
    ASSERT_LT(nth, 1000u);
    Forget();
  }
  EXPECT_TRUE(refused);
}

// --- refusals before any work

TEST_F(ImportKeyTest, ChecksInOrder) {
  Parameters parameters;
  parameters.Add({1, 1});
  BYTE byte = 0;
  Arguments arguments{0};
  arguments.importKey = 1;
  arguments.type = L"OTHER";
  arguments.parameters = parameters.List();
  arguments.flags = 0xFFFFFFFF;
  ExpectRefused(arguments, "NTE_INVALID_HANDLE: pProvider is NULL", NTE_INVALID_HANDLE);
  arguments.provider = provider_;
  ExpectRefused(arguments, kWrongType, NTE_NOT_SUPPORTED);
  arguments.type = kPublicBlob;
  ExpectRefused(arguments, "NTE_INVALID_PARAMETER: phKey is NULL", NTE_INVALID_PARAMETER);
  arguments.key = &key_;
  ExpectRefused(arguments, "NTE_INVALID_PARAMETER: pbData is NULL", NTE_INVALID_PARAMETER);
  arguments.data = &byte;
  ExpectRefused(arguments, "NTE_INVALID_PARAMETER: cbData is 0", NTE_INVALID_PARAMETER);
  arguments.length = 1;
  ExpectRefused(arguments, kBadFlags, NTE_BAD_FLAGS);
  arguments.flags = 0x6E8;
  ExpectRefused(arguments, kUnsupportedFlags, NTE_NOT_SUPPORTED);
  arguments.flags = 0x4C8;
  ExpectRefused(arguments, kNoName, NTE_INVALID_PARAMETER);
}

TEST_F(ImportKeyTest, RecordsThatAreNoProviderAreRefused) {
  for (kit::ProviderRecord& broken : BrokenRecords(providerRecord())) {
    Arguments arguments = Given(PublicBlob());
    arguments.provider = reinterpret_cast<NCRYPT_PROV_HANDLE>(&broken);
    ExpectRefused(arguments, "NTE_INVALID_HANDLE: pProvider is NULL", NTE_INVALID_HANDLE);
  }
}

// The message names one status and the call returns another.
TEST_F(ImportKeyTest, BlobTypesAreComparedExactly) {
  for (const wchar_t* type : {L"RSAFULLPRIVATEBLOB", L"rsapublicblob", L"RSAPUBLICBLOB ", L"RSAPUBLICBLO", L"",
                              L"RSAPRIVATEBLOBX", L"PKCS7_ENVELOPE", L"CAPIPRIVATEBLOB"}) {
    ExpectRefused(Given(PublicBlob(), type), kWrongType, NTE_NOT_SUPPORTED);
  }
  ExpectRefused(Given(PublicBlob(), nullptr), kWrongType, NTE_NOT_SUPPORTED);
}

TEST_F(ImportKeyTest, EveryFlag) {
  for (unsigned bit = 0; bit < 32; ++bit) {
    const DWORD flag = DWORD{1} << bit;
    if ((flag & 0x6E8) == 0) {
      ExpectRefused(Given(PublicBlob(), kPublicBlob, flag | 0x6E8), kBadFlags, NTE_BAD_FLAGS);
    } else if ((flag & 0x220) != 0) {
      ExpectRefused(Given(PublicBlob(), kPublicBlob, flag | 0x4C8), kUnsupportedFlags, NTE_NOT_SUPPORTED);
    } else {
      EXPECT_EQ(Import(PublicBlob(), kPublicBlob, flag), 0) << flag;
    }
  }
}

TEST_F(ImportKeyTest, ALengthAtItsMaximumFindsNoMemory) {
  ThrowOnce();
  for (const DWORD length : {DWORD{0xFFFFFFFF}, DWORD{0x80000000}, DWORD{kLargestBlock + 1}}) {
    for (const wchar_t* type : {kPublicBlob, kPrivateBlob}) {
      Arguments arguments = Given(PublicBlob(), type);
      arguments.length = length;
      kit::MemoryWatch watch;
      EXPECT_EQ(Call(arguments), NTE_NO_MEMORY);
      EXPECT_EQ(key_, kUntouched);
      EXPECT_TRUE(watch.Live().empty());
    }
  }
  ExpectCalls({});
}

// --- bytes that are not what they say

TEST_F(ImportKeyTest, BitLengthDecidesOverTheModulus) {
  struct Case {
    std::uint32_t bits;
    Bytes sent;
  };
  Bytes filledUp = kModulus;
  filledUp.resize(256, 0);
  for (const Case& one : {Case{512, Bytes(kModulus.begin(), kModulus.begin() + 64)}, Case{1024, kModulus},
                          Case{1031, kModulus}, Case{2048, filledUp}}) {
    RepeatRandom();
    Forget();
    Header header;
    header.bitLength = one.bits;
    EXPECT_EQ(Import(PublicBlob(header)), 0);
    EXPECT_EQ(record().dwKeyBitLength, one.bits);
    Created object;
    object.modulus = one.sent;
    ExpectCalls({Random(), Create(object), Logout()});
  }
}

TEST_F(ImportKeyTest, LengthsBeyondTheDataReadAsZero) {
  Header header;
  header.cbModulus = 5000;
  Bytes blob = PublicBlob(header);
  EXPECT_EQ(Import(blob), 0);
  ExpectCalls({Random(), Create(), Logout()});

  RepeatRandom();
  blob = PublicBlob();
  blob.resize(24 + 3 + 100);
  EXPECT_EQ(Import(blob), 0);
  Created object;
  object.modulus.resize(100);
  object.modulus.resize(128, 0);
  ExpectCalls({Random(), Create(object), Logout()});

  blob = PrivateBlob();
  blob.resize(24 + 3 + 128 + 64 + 10);
  EXPECT_EQ(Import(blob, kPrivateBlob, kDoNotFinalize), 0);
  Bytes prime2(kPrime2.begin(), kPrime2.begin() + 10);
  prime2.resize(64, 0);
  EXPECT_EQ(Bytes(record().pbPrime2, record().pbPrime2 + 64), prime2);
  EXPECT_EQ(record().cbPrivateKey, blob.size());
}

// A bit length changed later by the length property (up to 4096 bits) still finds its bytes.
TEST_F(ImportKeyTest, ComponentsAreAtLeastAsLongAsAnyBitLengthAsksFor) {
  kit::MemoryWatch watch;
  EXPECT_EQ(Import(Joined({HeaderBytes({kRsa1, 512, 1, 1, 1, 1}), {3, 4, 5, 6}}), kPrivateBlob, kDoNotFinalize), 0);
  const auto live = watch.Live();
  EXPECT_GE(live.at(record().pbModulus), 512u);
  EXPECT_GE(live.at(record().pbPrime1), 256u);
  EXPECT_GE(live.at(record().pbPrime2), 256u);
  EXPECT_EQ(record().pbModulus[0], 4);
  EXPECT_EQ(record().pbModulus[1], 0);
  EXPECT_EQ(record().pbPrime2[0], 6);
}

// A bit length or a part beyond any key that a token takes makes no component longer.
TEST_F(ImportKeyTest, ComponentsAreNoLongerThanAnyKeyTakes) {
  kit::MemoryWatch watch;
  EXPECT_EQ(Import(Joined({HeaderBytes({kRsa1, 80000, 1, 1, 1, 1}), {3, 4, 5, 6}}), kPrivateBlob, kDoNotFinalize), 0);
  const auto live = watch.Live();
  EXPECT_EQ(live.at(record().pbModulus), 512u);
  EXPECT_EQ(live.at(record().pbPrime1), 512u);
  EXPECT_EQ(live.at(record().pbPrime2), 512u);
  EXPECT_EQ(Import(Joined({HeaderBytes({kRsa1, 512, 0, 2000, 0, 0}), Bytes(2000, 7)}), kPrivateBlob, kDoNotFinalize),
            0);
  EXPECT_EQ(Bytes(record().pbModulus, record().pbModulus + 512), Bytes(512, 7));
}

TEST_F(ImportKeyTest, DataOfUpToAHeader) {
  const Bytes header = HeaderBytes({});
  for (std::size_t length = 1; length <= 24; ++length) {
    const Bytes data(header.begin(), header.begin() + static_cast<std::ptrdiff_t>(length));
    Bytes padded = data;
    padded.resize(24, 0);
    // Without the bit length's second byte there is no modulus length that the token takes.
    const SECURITY_STATUS expected = padded[5] == 0 ? NTE_INTERNAL_ERROR : 0;
    EXPECT_EQ(Import(data), expected) << length;
    if (expected == 0) {
      EXPECT_EQ(Bytes(record().pbModulus, record().pbModulus + 128), Bytes(128, 0)) << length;
      EXPECT_EQ(Bytes(record().PublicExponent, record().PublicExponent + 4), Bytes(4, 0));
    }
    EXPECT_EQ(Import(data, kPrivateBlob, kDoNotFinalize), 0) << length;
    EXPECT_EQ(record().cbPrivateKey, length);
    EXPECT_EQ(fake::Ulong(record().dwMagic), Bytes(padded.begin(), padded.begin() + 4));
  }
}

// What an import of this header has to answer.
SECURITY_STATUS Expected(const Header& header, const wchar_t* type) {
  for (const std::uint32_t length : {header.cbPublicExp, header.cbModulus, header.cbPrime1, header.cbPrime2}) {
    if (length > kLargestBlock) return NTE_INTERNAL_ERROR;
  }
  if (header.cbPublicExp > 4) return NTE_NOT_SUPPORTED;
  if (type == kPrivateBlob) return 0;
  const std::uint32_t bits = header.bitLength / 8 * 8;
  return bits == 512 || bits == 1024 || bits == 2048 || bits == 4096 ? 0 : NTE_INTERNAL_ERROR;
}

TEST_F(ImportKeyTest, EveryHeaderFieldAtItsEnds) {
  using Field = std::uint32_t Header::*;
  constexpr Field fields[] = {&Header::magic,     &Header::bitLength, &Header::cbPublicExp,
                              &Header::cbModulus, &Header::cbPrime1,  &Header::cbPrime2};
  for (const Field field : fields) {
    for (const std::uint32_t value :
         {0u, 1u, 1000u, 0x10000u, kLargestBlock + 1, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
      for (const wchar_t* type : {kPublicBlob, kPrivateBlob}) {
        Header header;
        header.*field = value;
        EXPECT_EQ(Import(PublicBlob(header), type, kDoNotFinalize), Expected(header, type))
            << "field " << (std::find(std::begin(fields), std::end(fields), field) - fields) << " = " << value;
        if (key_ != kUntouched) {
          EXPECT_EQ(record().dwMagic, header.magic);
          EXPECT_EQ(record().dwKeyBitLength, header.bitLength);
        }
        Forget();
      }
    }
  }
}

TEST_F(ImportKeyTest, AllHeaderFieldsAtTheirMaximum) {
  const std::uint32_t max = 0xFFFFFFFF;
  for (const wchar_t* type : {kPublicBlob, kPrivateBlob}) {
    const Arguments arguments = Given(HeaderBytes({max, max, max, max, max, max}), type);
    EXPECT_EQ(Call(arguments), NTE_INTERNAL_ERROR);
    ExpectLines(Lines(arguments, {}, NTE_INTERNAL_ERROR));
  }
  ExpectCalls({});
}

// What the header says of a key's length decides about answers, not about memory: the record keeps what a key may have.
TEST_F(ImportKeyTest, NothingLargeStaysBehindWhateverTheHeaderSays) {
  for (const std::uint32_t bits : {kLargestBlock * 8 - 8, kLargestBlock * 8 + 8, 0xFFFFFFFFu}) {
    for (const std::uint32_t magic : {0x32415352u, 0x31415352u}) {
      Header header;
      header.magic = magic;
      header.bitLength = bits;
      header.cbModulus = header.cbPrime1 = header.cbPrime2 = 0x100000;
      const kit::MemoryWatch watch;
      EXPECT_EQ(Import(HeaderBytes(header), kPrivateBlob, kDoNotFinalize), 0);
      EXPECT_EQ(record().dwKeyBitLength, bits);
      for (const auto& [address, size] : watch.Live())
        EXPECT_LE(size, 2048u);
    }
  }
}

TEST_F(ImportKeyTest, TheLargestLengthIsTaken) {
  Header header;
  header.cbPrime1 = kLargestBlock;
  EXPECT_EQ(Import(PublicBlob(header)), 0);
  ExpectCalls({Random(), Create(), Logout()});
}

}  // namespace
