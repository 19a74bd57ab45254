// Certificates by themselves: refusals, the lookup for a key, and what a second creation replaces.
#include "token/certificate.h"

#include <string>
#include <vector>

#include "inside/freed_watch.h"
#include "inside/token_fixture.h"
#include "kit/certificate.h"

namespace {

using fake::Ascii;

class CertificateTest : public TokenObjectsTest {
 protected:
  void SetUp() override {
    TokenObjectsTest::SetUp();
    publicKey_ = token().AddPublicKey(Ascii("pub"), "");     // 0x101
    privateKey_ = token().AddPrivateKey(Ascii("priv"), "");  // 0x102
  }
  SECURITY_STATUS Create(Certificate& certificate) {
    return certificate.CreateFromEncoded(made_.der.data(), static_cast<DWORD>(made_.der.size()));
  }
  const kit::TestCertificate made_ = kit::MakeCertificate("Subject", "Issuer", {0x01, 0x02});
  CK_OBJECT_HANDLE publicKey_ = 0;
  CK_OBJECT_HANDLE privateKey_ = 0;
};

TEST_F(CertificateTest, RefusesWhatCannotBeCalled) {
  Certificate noSession;
  Bind(noSession).SetSession(0);
  noSession.SetPublicKeyHandle(publicKey_);
  noSession.SetPrivateKeyHandle(privateKey_);
  EXPECT_EQ(noSession.FindForKey(), NTE_INVALID_PARAMETER);
  EXPECT_EQ(Create(noSession), NTE_INVALID_PARAMETER);
  Certificate noModule;
  Bind(noModule).SetModule(nullptr);
  noModule.SetPublicKeyHandle(publicKey_);
  noModule.SetPrivateKeyHandle(privateKey_);
  EXPECT_EQ(noModule.FindForKey(), NTE_INVALID_PARAMETER);
  EXPECT_EQ(Create(noModule), NTE_INVALID_PARAMETER);
  // Before the bytes are looked at.
  EXPECT_EQ(noModule.CreateFromEncoded(nullptr, 0), NTE_INVALID_PARAMETER);
  ExpectCalls({});
}

TEST_F(CertificateTest, LookupWantsBothKeys) {
  for (int missing = 1; missing < 4; ++missing) {
    Certificate certificate;
    Bind(certificate);
    if (!(missing & 1)) certificate.SetPublicKeyHandle(publicKey_);
    if (!(missing & 2)) certificate.SetPrivateKeyHandle(privateKey_);
    EXPECT_EQ(certificate.FindForKey(), NTE_INVALID_PARAMETER);
  }
  ExpectCalls({});
}

TEST_F(CertificateTest, PrivateKeysIdentifierComesFirst) {
  Certificate certificate;
  Bind(certificate);
  certificate.SetPublicKeyHandle(publicKey_);
  certificate.SetPrivateKeyHandle(privateKey_);
  EXPECT_EQ(certificate.FindForKey(), NTE_NOT_FOUND);
  ExpectCalls({"C_GetAttributeValue(session=0x51, object=0x102, {CKA_ID[NULL,0]})",
               "C_GetAttributeValue(session=0x51, object=0x102, {CKA_ID[4]})",
               "C_FindObjectsInit(session=0x51, {CKA_TOKEN=01, CKA_CLASS=01000000, CKA_ID=70726976})",
               "C_FindObjects(session=0x51, objects=PTR, maximum=1)", "C_FindObjectsFinal(session=0x51)"});
  EXPECT_EQ(certificate.GetObjectHandle(), 0u);
}

TEST_F(CertificateTest, PublicKeysIdentifierServesWithoutAPrivateKey) {
  Certificate certificate;
  Bind(certificate).SetPublicKeyHandle(publicKey_);
  EXPECT_EQ(Create(certificate), ERROR_SUCCESS);
  const std::vector<fake::Call> calls = token().Calls();
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[0].text, "C_GetAttributeValue(session=0x51, object=0x101, {CKA_ID[NULL,0]})");
  EXPECT_EQ(calls[1].text, "C_GetAttributeValue(session=0x51, object=0x101, {CKA_ID[3]})");
  EXPECT_EQ(calls[2].templates[0][7].value, Ascii("pub"));
  EXPECT_EQ(calls[2].templates[0][8].value, Ascii("pub"));
  EXPECT_EQ(certificate.GetObjectHandle(), 0x103u);
  EXPECT_EQ(certificate.GetClass(), CK_OBJECT_CLASS{CKO_CERTIFICATE});
  EXPECT_TRUE(certificate.IsToken());
  EXPECT_TRUE(certificate.IsModifiable());
  EXPECT_TRUE(certificate.IsExtractable());
  EXPECT_FALSE(certificate.IsPrivate());
}

TEST_F(CertificateTest, FoundOneIsAStatusAndItsHandle) {
  const CK_OBJECT_HANDLE object = token().AddObject(
      {{CKA_CLASS, fake::Ulong(CKO_CERTIFICATE)}, {CKA_TOKEN, fake::Bool(true)}, {CKA_ID, Ascii("priv")}});
  Certificate certificate;
  Bind(certificate);
  certificate.SetPublicKeyHandle(publicKey_);
  certificate.SetPrivateKeyHandle(privateKey_);
  EXPECT_EQ(certificate.FindForKey(), NTE_EXISTS);
  EXPECT_EQ(certificate.GetObjectHandle(), object);
}

TEST_F(CertificateTest, SeveralFoundAreFoundAllTheSame) {
  CK_FUNCTION_LIST& functions = token().List()->standard;
  const CK_C_FindObjects original = functions.C_FindObjects;
  functions.C_FindObjects = [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE* objects, CK_ULONG, CK_ULONG* count) -> CK_RV {
    *objects = 0x123;
    *count = 2;
    return CKR_OK;
  };
  Certificate certificate;
  Bind(certificate);
  certificate.SetPublicKeyHandle(publicKey_);
  certificate.SetPrivateKeyHandle(privateKey_);
  EXPECT_EQ(certificate.FindForKey(), NTE_EXISTS);
  functions.C_FindObjects = original;
  EXPECT_EQ(certificate.GetObjectHandle(), 0x123u);
}

TEST_F(CertificateTest, FailedSearchIsNotEnded) {
  for (const char* function : {"C_FindObjectsInit", "C_FindObjects"}) {
    Certificate certificate;
    Bind(certificate);
    certificate.SetPublicKeyHandle(publicKey_);
    certificate.SetPrivateKeyHandle(privateKey_);
    token().ClearCalls();
    token().Fail(function, CKR_DEVICE_ERROR);
    EXPECT_EQ(certificate.FindForKey(), NTE_INTERNAL_ERROR);
    EXPECT_EQ(token().Calls().back().function, function);
  }
}

TEST_F(CertificateTest, KeyWithAnEmptyIdentifier) {
  token().ObjectAttributes(privateKey_)[CKA_ID] = {};
  Certificate certificate;
  Bind(certificate);
  certificate.SetPublicKeyHandle(publicKey_);
  certificate.SetPrivateKeyHandle(privateKey_);
  EXPECT_EQ(certificate.FindForKey(), NTE_NOT_FOUND);
  EXPECT_EQ(Create(certificate), ERROR_SUCCESS);
  EXPECT_EQ(token().Calls().back().templates[0][7].length, 0u);
}

TEST_F(CertificateTest, SecondCreationReplacesAndWipesTheBuffers) {
  FreedWatch watch;
  Certificate certificate;
  Bind(certificate).SetPublicKeyHandle(publicKey_);
  EXPECT_EQ(Create(certificate), ERROR_SUCCESS);
  const fake::Call first = token().Calls().back();
  const struct {
    std::size_t entry;
    std::size_t size;
  } kept[] = {{3, made_.der.size()}, {7, 3}, {10, 2}};  // encoded certificate, identifier, serial number
  for (const auto& one : kept)
    watch.Follow(first.templates[0][one.entry].address);
  EXPECT_EQ(Create(certificate), ERROR_SUCCESS);
  for (const auto& one : kept)
    EXPECT_TRUE(watch.Wiped(first.templates[0][one.entry].address, one.size)) << one.entry;
}

}  // namespace
