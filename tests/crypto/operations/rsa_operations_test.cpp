// The operations of a key pair by themselves: what they refuse, where no entry of the provider reaches.
#include <functional>
#include <vector>

#include "crypto/operations/rsa_operations.h"
#include "inside/token_fixture.h"

namespace {

using fake::Ascii;
using fake::Bytes;

class RsaOperationsTest : public TokenTest {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(TokenTest::SetUp());
    keys_ = token().AddKeyPair(Ascii("id"), "a", 1024);
    token().SlotAt(0).loggedIn = true;
  }
  // All that an operation needs, but for the key.
  struct Call {
    const char* name;
    CK_OBJECT_HANDLE key;
    void (RSAPair::*setKey)(CK_OBJECT_HANDLE) noexcept;
    std::function<SECURITY_STATUS(RSAPair&, const unsigned char*, DWORD*)> run;
  };
  // The last argument is the length; verification, which has none, takes it for the signature.
  std::vector<Call> Calls() {
    return {{"Sign", keys_.privateKey, &RSAPair::SetPrivateKeyHandle,
             [this](RSAPair& pair, const unsigned char* input, DWORD* length) {
               return Sign(pair, input, 20, output_, length);
             }},
            {"Verify", keys_.publicKey, &RSAPair::SetPublicKeyHandle,
             [this](RSAPair& pair, const unsigned char* input, DWORD* length) {
               const SECURITY_STATUS status = Verify(pair, input, 20, length ? output_ : nullptr, 128);
               return status == NTE_FAIL ? ERROR_SUCCESS : status;  // the token has looked and refused
             }},
            {"Encrypt", keys_.publicKey, &RSAPair::SetPublicKeyHandle,
             [this](RSAPair& pair, const unsigned char* input, DWORD* length) {
               return Encrypt(pair, input, 20, output_, length);
             }},
            {"Decrypt", keys_.privateKey, &RSAPair::SetPrivateKeyHandle,
             [this](RSAPair& pair, const unsigned char* input, DWORD* length) {
               return Decrypt(pair, input, 128, output_, length);
             }}};
  }

  fake::KeyPair keys_;
  Bytes input_ = Bytes(128, 0x10);
  unsigned char output_[128] = {};
};

TEST_F(RsaOperationsTest, RefuseWhatCannotBeCalled) {
  input_ = token().Ciphertext(keys_.publicKey, Ascii("text"));
  for (const Call& call : Calls()) {
    DWORD length = sizeof output_;
    RSAPair pair;
    Bind(pair);
    EXPECT_EQ(call.run(pair, input_.data(), &length), NTE_INVALID_PARAMETER) << call.name << " without a key";
    // The other key does not stand in for it.
    (pair.*(call.setKey == &RSAPair::SetPublicKeyHandle ? &RSAPair::SetPrivateKeyHandle
                                                        : &RSAPair::SetPublicKeyHandle))(call.key);
    EXPECT_EQ(call.run(pair, input_.data(), &length), NTE_INVALID_PARAMETER) << call.name << " with the other key";
    (pair.*call.setKey)(call.key);
    EXPECT_EQ(call.run(pair, nullptr, &length), NTE_INVALID_PARAMETER) << call.name << " without input";
    EXPECT_EQ(call.run(pair, input_.data(), nullptr), NTE_INVALID_PARAMETER) << call.name << " without a length";
    pair.SetSession(0);
    EXPECT_EQ(call.run(pair, input_.data(), &length), NTE_INVALID_PARAMETER) << call.name << " without a session";
    pair.SetSession(kSession);
    pair.SetModule(nullptr);
    EXPECT_EQ(call.run(pair, input_.data(), &length), NTE_INVALID_PARAMETER) << call.name << " without a module";
    EXPECT_TRUE(token().Calls().empty()) << call.name;
    EXPECT_EQ(length, sizeof output_);
    pair.SetModule(module_);
    EXPECT_EQ(call.run(pair, input_.data(), &length), ERROR_SUCCESS) << call.name;
    EXPECT_EQ(token().TakeTexts().size(), 2u);
  }
}

TEST_F(RsaOperationsTest, LengthsOfNoHashAreNotSigned) {
  RSAPair pair;
  Bind(pair);
  pair.SetPrivateKeyHandle(keys_.privateKey);
  for (const DWORD cbHash : {DWORD{0}, DWORD{15}, DWORD{28}, DWORD{48}, DWORD{84}, DWORD{0xFFFFFFFF}}) {
    DWORD length = sizeof output_;
    EXPECT_EQ(Sign(pair, input_.data(), cbHash, output_, &length), NTE_INVALID_PARAMETER) << cbHash;
    EXPECT_EQ(length, sizeof output_);
  }
  EXPECT_TRUE(token().Calls().empty());
}

}  // namespace
