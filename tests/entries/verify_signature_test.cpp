// VerifySignature, entry to exit: checks in their order, token calls, log lines, statuses.
#include <string>
#include <utility>
#include <vector>

#include "entries/signing.h"

namespace {

using fake::Bytes;
using kit::Counting;
using kit::Hex32;
using kit::Joined;
using kit::kBadFlags;
using kit::kBanner;
using kit::kClosingBanner;
using kit::kPkcs1;
using kit::kPss;
using kit::kSha1;
using kit::kSha256;
using kit::kSilent;
using kit::Line;
using kit::Pointer32;

class VerifySignatureTest : public SigningTest {
 protected:
  SECURITY_STATUS Verify(Bytes data, Bytes signature, DWORD flags = 0) {
    hash_ = std::move(data);
    signature_ = std::move(signature);
    return ksp().VerifySignature(provider_, key_, nullptr, hash_.data(), static_cast<DWORD>(hash_.size()),
                                 signature_.data(), static_cast<DWORD>(signature_.size()), flags);
  }
  // What the entry logs of its arguments.
  static std::vector<Line> VerifyArguments(const Arguments& a) {
    return {Hex32("hProvider    : ", a.provider),        Hex32("hKey         : ", a.key),
            Pointer32("pPaddingInfo : ", a.padding),     Pointer32("pbHashValue  : ", a.hash),
            Hex32("cbHashValue  : ", a.hashLength),      Pointer32("pbSignature  : ", a.signature),
            Hex32("cbSignature  : ", a.signatureLength), Hex32("dwFlags      : ", a.flags)};
  }
  // This entry's exit line has no colon and no blank before the status.
  static std::vector<Line> VerifyLines(const Arguments& a, const std::vector<Line>& body, LONG status) {
    return kit::Join({{kBanner, "KELDAKSPVerifySignature - Entry"},
                      VerifyArguments(a),
                      body,
                      {Hex32("KELDAKSPVerifySignature - Exit", static_cast<ULONG>(status)), kClosingBanner}});
  }
  // The lines between those of the arguments and the exit line.
  static std::vector<Line> VerifyBody() { return kit::TakeBody(VerifyArguments({})); }
};

TEST_F(VerifySignatureTest, VerifiesTheBlockAsPassed) {
  CachePin();
  const Bytes info = Joined({kSha1, Counting(20)});
  const Bytes signature = token().Signature(pair_.privateKey, info);
  EXPECT_EQ(Verify(info, signature), 0);
  const std::vector<Line> lines = kit::Log::Get().Take();
  EXPECT_TRUE(
      kit::SameLines(VerifyLines({provider_, key_, nullptr, hash_.data(), 35, signature_.data(), 128, nullptr, 0},
                                 CachedLogin(EntryInstance(lines)), 0),
                     lines));
  ExpectCalls(CallsAfterLogin(
      {"C_VerifyInit(session=0x51, CKM_RSA_PKCS[NULL,0], key=0x101)",
       "C_Verify(session=0x51, data=" + fake::HexOf(info) + ", signature=" + fake::HexOf(signature) + ")"}));
  EXPECT_EQ(kit::Registry::Get().TakeReads(), (std::vector<std::wstring>{L"KSPLOG", L"KSPDIR"}));
}

TEST_F(VerifySignatureTest, SignatureOverABareHashNeedsTheDigestInfo) {
  CachePin();
  const Bytes hash = Counting(32);
  EXPECT_EQ(Sign(hash), 0);
  const Bytes signature = signature_;
  EXPECT_EQ(Verify(hash, signature), NTE_FAIL) << "signing wraps, verification does not";
  EXPECT_EQ(Verify(Joined({kSha256, hash}), signature), 0);
}

TEST_F(VerifySignatureTest, WrongSignature) {
  CachePin();
  const Bytes info = Joined({kSha1, Counting(20)});
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

TEST_F(VerifySignatureTest, PaddingInfoIsLoggedAndIgnored) {
  CachePin();
  hash_ = Joined({kSha1, Counting(20)});
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

TEST_F(VerifySignatureTest, FlagsBitByBit) {
  CachePin();
  const Bytes info = Joined({kSha1, Counting(20)});
  const Bytes signature = token().Signature(pair_.privateKey, info);
  for (int bit = 0; bit < 32; ++bit) {
    const DWORD flag = DWORD{1} << bit;
    Forget();
    if (flag == kPkcs1 || flag == kSilent) {
      EXPECT_EQ(Verify(info, signature, flag), 0);
      continue;
    }
    EXPECT_EQ(Verify(info, signature, flag), flag == kPss ? NTE_NOT_SUPPORTED : NTE_BAD_FLAGS) << "bit " << bit;
    EXPECT_EQ(VerifyBody(), std::vector<Line>{flag == kPss ? kNoPss : kBadFlags});
    ExpectCalls({});
  }
}

TEST_F(VerifySignatureTest, RecordsThatAreNoneAreRefused) {
  const NCRYPT_PROV_HANDLE provider = provider_;
  const NCRYPT_KEY_HANDLE key = key_;
  for (kit::ProviderRecord& broken : BrokenRecords(*kit::RecordOf(provider))) {
    provider_ = reinterpret_cast<NCRYPT_PROV_HANDLE>(&broken);
    EXPECT_EQ(Verify(Counting(35), Bytes(128)), NTE_INVALID_HANDLE);
    EXPECT_EQ(VerifyBody(), std::vector<Line>{"NTE_INVALID_HANDLE: pProvider is NULL"});
  }
  provider_ = provider;
  for (kit::KeyRecord& broken : BrokenRecords(*kit::KeyOf(key))) {
    key_ = reinterpret_cast<NCRYPT_KEY_HANDLE>(&broken);
    EXPECT_EQ(Verify(Counting(35), Bytes(128)), NTE_INVALID_HANDLE);
    EXPECT_EQ(VerifyBody(), std::vector<Line>{"NTE_INVALID_HANDLE: pKey is NULL"});
  }
  key_ = key;
  ExpectCalls({});
}

TEST_F(VerifySignatureTest, NothingStaysBehind) {
  CachePin();
  const Bytes info = Joined({kSha1, Counting(20)});
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

TEST_F(VerifySignatureTest, AnyLengthGoesToTheToken) {
  CachePin();
  for (const std::size_t length : {std::size_t{1}, std::size_t{48}, std::size_t{100}}) {
    const Bytes data = Counting(length);
    EXPECT_EQ(Verify(data, token().Signature(pair_.privateKey, data)), 0) << length;
  }
  BYTE hash[1] = {};
  BYTE signature[1] = {};
  EXPECT_EQ(ksp().VerifySignature(provider_, key_, nullptr, hash, 0, signature, 0, 0), NTE_FAIL);
}

TEST_F(VerifySignatureTest, VerifyChecksInOrder) {
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
  EXPECT_EQ(VerifyBody(), std::vector<Line>{"NTE_INVALID_HANDLE: pKey is NULL"});
  EXPECT_EQ(verify(provider_, key_, nullptr, nullptr, bad), NTE_INVALID_PARAMETER);
  EXPECT_EQ(VerifyBody(), std::vector<Line>{"NTE_INVALID_PARAMETER: pbHashValue is NULL"});
  EXPECT_EQ(verify(provider_, key_, hash, nullptr, bad), NTE_INVALID_PARAMETER);
  EXPECT_EQ(VerifyBody(), std::vector<Line>{"NTE_INVALID_PARAMETER: pbSignature is NULL"});
  EXPECT_EQ(verify(provider_, key_, hash, signature, bad), NTE_BAD_FLAGS);
  EXPECT_EQ(VerifyBody(), std::vector<Line>{kBadFlags});
  EXPECT_EQ(verify(provider_, key_, hash, signature, kPss), NTE_NOT_SUPPORTED);
  EXPECT_EQ(VerifyBody(), std::vector<Line>{kNoPss});
  EXPECT_EQ(verify(provider_, key_, hash, signature, kSilent | kPkcs1), NTE_BAD_KEY_STATE);
  EXPECT_EQ(VerifyBody(), std::vector<Line>{"NTE_BAD_KEY_STATE: The specified key is not yet finalized"});
  ExpectCalls({});
}

TEST_F(VerifySignatureTest, NeedsALogin) {
  kit::DialogRobot robot;  // cancels
  EXPECT_EQ(Verify(Counting(35), Bytes(128)), SECURITY_STATUS(SCARD_W_CANCELLED_BY_USER));
  EXPECT_EQ(robot.Finish(), 1u);
  EXPECT_EQ(VerifyBody().back(), Line("Failed to login. Operation aborted."));
  EXPECT_EQ(token().Count("C_VerifyInit"), 0u);
}

TEST_F(VerifySignatureTest, UsagePolicyIsNotAsked) {
  CachePin();
  record_->dwKeyUsagePolicy = 0;
  const Bytes info = Joined({kSha1, Counting(20)});
  EXPECT_EQ(Verify(info, token().Signature(pair_.privateKey, info)), 0);
}

TEST_F(VerifySignatureTest, FailingCalls) {
  CachePin();
  const Bytes info = Joined({kSha1, Counting(20)});
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
