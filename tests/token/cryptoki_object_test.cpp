// The base of the token objects by itself: accessors, flags, logs and destruction.
#include "token/cryptoki_object.h"

#include <string>
#include <utility>

#include "inside/token_fixture.h"
#include "token/certificate.h"
#include "token/private_key.h"
#include "token/public_key.h"
#include "token/rsa_pair.h"

namespace {

using fake::Ascii;

class CryptokiObjectTest : public TokenObjectsTest {};

struct Probe : CryptokiObject {
  using CryptokiObject::class_;
  using CryptokiObject::extractable_;
  using CryptokiObject::modifiable_;
  using CryptokiObject::object_;
  using CryptokiObject::private_;
  using CryptokiObject::sensitive_;
  using CryptokiObject::token_;
};

TEST_F(CryptokiObjectTest, NewObjectIsNowhereAndNothing) {
  Probe object;
  EXPECT_EQ(object.GetClass(), 0u);
  EXPECT_FALSE(object.IsModifiable());
  EXPECT_FALSE(object.IsPrivate());
  EXPECT_FALSE(object.IsToken());
  EXPECT_FALSE(object.IsExtractable());
  EXPECT_FALSE(object.IsSensitive());
  EXPECT_EQ(object.GetObjectHandle(), 0u);
  EXPECT_EQ(object.GetSessionHandle(), 0u);
  EXPECT_EQ(object.GetModule(), nullptr);
  EXPECT_EQ(object.GetName(), "");
  ExpectCalls({});
}

TEST_F(CryptokiObjectTest, AccessorsTellTheFields) {
  Probe object;
  Bind(object);
  object.class_ = CKO_DATA + 5;
  object.object_ = 0x123;
  EXPECT_EQ(object.GetClass(), CK_OBJECT_CLASS{CKO_DATA + 5});
  EXPECT_EQ(object.GetObjectHandle(), 0x123u);
  EXPECT_EQ(object.GetSessionHandle(), kSession);
  EXPECT_EQ(object.GetModule(), module_);
  object.GetName() = "text";
  EXPECT_EQ(object.GetName(), "text") << "the name is handed out by reference";
}

TEST_F(CryptokiObjectTest, FlagsAreComparedWithExactly1) {
  Probe object;
  const struct {
    CK_BBOOL& field;
    bool (CryptokiObject::*test)() const;
  } flags[] = {{object.modifiable_, &CryptokiObject::IsModifiable},
               {object.private_, &CryptokiObject::IsPrivate},
               {object.token_, &CryptokiObject::IsToken},
               {object.extractable_, &CryptokiObject::IsExtractable},
               {object.sensitive_, &CryptokiObject::IsSensitive}};
  for (const auto& flag : flags) {
    for (unsigned value = 0; value < 256; ++value) {
      flag.field = static_cast<CK_BBOOL>(value);
      EXPECT_EQ((object.*flag.test)(), value == 1) << value;
    }
    flag.field = 0;
  }
}

// Counts log instances by the line that their constructor sends to the debugger: as 16-bit text, or narrowed where the
// platform knows only that.
std::size_t g_logs = 0;
LONG CALLBACK CountLogs(EXCEPTION_POINTERS* pointers) {
  constexpr DWORD kNarrow = 0x40010006;
  constexpr DWORD kWide = 0x4001000A;
  const EXCEPTION_RECORD& record = *pointers->ExceptionRecord;
  const auto* text = reinterpret_cast<const void*>(record.ExceptionInformation[1]);
  if (record.ExceptionCode == kWide && std::wstring(static_cast<const wchar_t*>(text)) == L"DebugClass ctor - Enter") {
    ++g_logs;
  } else if (record.ExceptionCode == kNarrow &&
             std::string(static_cast<const char*>(text)) == "DebugClass ctor - Enter") {
    ++g_logs;
  }
  return EXCEPTION_CONTINUE_SEARCH;
}

TEST_F(CryptokiObjectTest, EachHasALogOfItsOwn) {
  void* const handler = AddVectoredExceptionHandler(1, &CountLogs);
  const auto constructed = [] { return std::exchange(g_logs, 0); };
  constructed();
  {
    const CryptokiObject object;
    EXPECT_EQ(constructed(), 1u);
  }
  EXPECT_EQ(constructed(), 0u);
  const PublicKey publicKey;
  EXPECT_EQ(constructed(), 2u) << "the inner object has one as well";
  const PrivateKey privateKey;
  EXPECT_EQ(constructed(), 2u);
  const Certificate certificate;
  EXPECT_EQ(constructed(), 1u);
  const RSAPair pair;
  EXPECT_EQ(constructed(), 1u);
  RemoveVectoredExceptionHandler(handler);
}

TEST_F(CryptokiObjectTest, DestroyWithoutAnObjectDoesNotCallTheToken) {
  Probe object;
  Bind(object);
  EXPECT_EQ(object.Destroy(), kArgumentsBad);
  object.object_ = 0x101;
  object.SetSession(0);
  EXPECT_EQ(object.Destroy(), kArgumentsBad);
  object.SetSession(kSession);
  object.SetModule(nullptr);
  EXPECT_EQ(object.Destroy(), kArgumentsBad);
  EXPECT_EQ(object.GetObjectHandle(), 0x101u);
  ExpectCalls({});
}

// The handle is cleared before the call: the call names object 0, and the object stays.
TEST_F(CryptokiObjectTest, DestroyNamesObject0) {
  const CK_OBJECT_HANDLE onToken = token().AddPublicKey(Ascii("id"), "label");
  Probe object;
  Bind(object).object_ = onToken;
  EXPECT_EQ(object.Destroy(), CKR_OBJECT_HANDLE_INVALID);
  EXPECT_EQ(object.GetObjectHandle(), 0u);
  ExpectCalls({"C_DestroyObject(session=0x51, object=0x0)"});
  EXPECT_TRUE(token().HasObject(onToken));
  // What the token answers comes back as it is.
  for (const CK_RV code : {CKR_OK, CKR_DEVICE_ERROR, CKR_VENDOR_DEFINED}) {
    object.object_ = onToken;
    token().Fail("C_DestroyObject", code);
    EXPECT_EQ(object.Destroy(), code);
  }
}

}  // namespace
