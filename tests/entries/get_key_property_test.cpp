// GetKeyProperty: every property, size queries, short buffers, and what is refused.
#include <string>

#include "kit/key_entry.h"

namespace {

using fake::Ascii;
using fake::Bytes;
using fake::Ulong;
using kit::Frame;
using kit::Hex32;
using kit::Join;
using kit::kPersistOnly;
using kit::Line;
using kit::Narrow;
using kit::Pointer32;
using kit::WideBytes;

constexpr BYTE kFill = 0xEE;
constexpr DWORD kUnwritten = 0xDEADBEEF;

class GetKeyPropertyTest : public NewKeyTest {
 protected:
  // Asks with a buffer of the given room; the bytes behind it must stay as they are.
  SECURITY_STATUS Get(const wchar_t* name, DWORD room, DWORD flags = 0) {
    buffer_.assign(room + 8, kFill);
    result_ = kUnwritten;
    flags_ = flags;
    room_ = room;
    output_ = buffer_.data();
    const SECURITY_STATUS status = ksp().GetKeyProperty(provider_, key_, name, output_, room, &result_, flags);
    EXPECT_EQ(Bytes(buffer_.end() - 8, buffer_.end()), Bytes(8, kFill));
    return status;
  }
  SECURITY_STATUS AskSize(const wchar_t* name, DWORD room = 0) {
    result_ = kUnwritten;
    flags_ = 0;
    room_ = room;
    output_ = nullptr;
    return ksp().GetKeyProperty(provider_, key_, name, nullptr, room, &result_, 0);
  }
  Bytes written(DWORD size) const { return Bytes(buffer_.begin(), buffer_.begin() + static_cast<long>(size)); }
  bool untouched() const {
    return std::all_of(buffer_.begin(), buffer_.end(), [](BYTE byte) { return byte == kFill; });
  }

  std::vector<Line> Lines(const std::string& name, const std::vector<Line>& body, LONG status) const {
    return Frame("KELDAKSPGetKeyProperty",
                 Join({{Hex32("hProvider   : ", provider_), Hex32("hKey        : ", key_), "pszProperty : " + name,
                        Pointer32("pbOutput    : ", output_), Hex32("cbOutput    : ", room_),
                        Pointer32("pcbResult   : ", &result_), Hex32("dwFlags     : ", flags_)},
                       body}),
                 status);
  }
  static Bytes Numbers(std::initializer_list<DWORD> numbers) {
    Bytes all;
    for (const DWORD number : numbers) {
      const Bytes one = Ulong(number);
      all.insert(all.end(), one.begin(), one.end());
    }
    return all;
  }

  struct Property {
    const wchar_t* name;
    const char* line;
    Bytes value;
  };
  static std::vector<Property> Properties() {
    return {{L"Algorithm Name", "dwProperty = KELDAKSP_ALGORITHM_PROPERTY", WideBytes(L"RSA")},
            {L"Block Length", "dwProperty = KELDAKSP_BLOCK_LENGTH_PROPERTY", Ulong(256)},
            {L"Export Policy", "dwProperty = KELDAKSP_EXPORT_POLICY_PROPERTY", Ulong(2)},
            {L"Key Usage", "dwProperty = KELDAKSP_KEY_USAGE_PROPERTY", Ulong(3)},
            {L"Key Type", "dwProperty = KELDAKSP_KEY_TYPE_PROPERTY", Ulong(0)},
            {L"Length", "dwProperty = KELDAKSP_LENGTH_PROPERTY", Ulong(2048)},
            {L"Lengths", "dwProperty = KELDAKSP_LENGTHS_PROPERTY", Numbers({512, 4096, 512, 2048})},
            {L"Name", "dwProperty = KELDAKSP_NAME_PROPERTY", WideBytes(L"Key1")},
            {L"Algorithm Group", "dwProperty = KELDAKSP_ALGORITHM_GROUP_PROPERTY", WideBytes(L"RSA")},
            {L"Unique Name", "dwProperty = KELDAKSP_UNIQUE_NAME_PROPERTY", WideBytes(L"Key1")}};
  }
  static constexpr const wchar_t* kRefused[] = {L"SmartCardKeyCertificate",
                                                L"Unknown",
                                                L"",
                                                L"length",
                                                L"LENGTH",
                                                L"Length ",
                                                L"Lengt",
                                                L"UI Policy",
                                                L"Use Context",
                                                L"HWND Handle",
                                                L"Provider Handle"};

  Bytes buffer_;
  BYTE* output_ = nullptr;
  DWORD room_ = 0;
  DWORD flags_ = 0;
  DWORD result_ = 0;
};

TEST_F(GetKeyPropertyTest, EveryProperty) {
  for (const Property& property : Properties()) {
    const auto size = static_cast<DWORD>(property.value.size());
    for (const DWORD room : {size, size + 1, size + 100}) {
      EXPECT_EQ(Get(property.name, room), 0) << Narrow(property.name);
      EXPECT_EQ(result_, size);
      EXPECT_EQ(written(size), property.value) << Narrow(property.name);
      EXPECT_EQ(Bytes(buffer_.begin() + static_cast<long>(size), buffer_.end()), Bytes(buffer_.size() - size, kFill));
      ExpectLines(Lines(Narrow(property.name), {property.line}, 0));
    }
  }
  ExpectCalls({});
  EXPECT_EQ(kit::Registry::Get().TakeReads(), std::vector<std::wstring>{});
}

TEST_F(GetKeyPropertyTest, SizeQueries) {
  for (const Property& property : Properties()) {
    // Without a buffer its length does not matter.
    for (const DWORD room : {DWORD{0}, DWORD{1}, DWORD{0xFFFFFFFF}}) {
      EXPECT_EQ(AskSize(property.name, room), 0) << Narrow(property.name);
      EXPECT_EQ(result_, property.value.size());
      ExpectLines(Lines(Narrow(property.name), {}, 0));
    }
  }
}

TEST_F(GetKeyPropertyTest, ShortBuffers) {
  for (const Property& property : Properties()) {
    const auto size = static_cast<DWORD>(property.value.size());
    for (const DWORD room : {DWORD{0}, DWORD{1}, size - 1}) {
      EXPECT_EQ(Get(property.name, room), NTE_BUFFER_TOO_SMALL) << Narrow(property.name);
      EXPECT_EQ(result_, size);
      EXPECT_TRUE(untouched());
      ExpectLines(Lines(Narrow(property.name), {}, NTE_BUFFER_TOO_SMALL));
    }
  }
}

TEST_F(GetKeyPropertyTest, RefusedAndUnknownProperties) {
  for (const wchar_t* name : kRefused) {
    for (const DWORD room : {DWORD{0}, DWORD{100}}) {
      EXPECT_EQ(Get(name, room), NTE_NOT_SUPPORTED) << Narrow(name);
      EXPECT_EQ(result_, 0u);
      EXPECT_TRUE(untouched());
      ExpectLines(Lines(Narrow(name), {}, NTE_NOT_SUPPORTED));
    }
    EXPECT_EQ(AskSize(name), NTE_NOT_SUPPORTED) << Narrow(name) << ", size query";
    EXPECT_EQ(result_, 0u);
    ExpectLines(Lines(Narrow(name), {}, NTE_NOT_SUPPORTED));
  }
}

// Only the certificate is refused in a size query as well; the descriptor's size is 0.
TEST_F(GetKeyPropertyTest, SecurityDescriptorHasASizeAndNoValue) {
  for (const DWORD room : {DWORD{0}, DWORD{100}}) {
    EXPECT_EQ(Get(L"Security Descr", room), NTE_NOT_SUPPORTED);
    EXPECT_EQ(result_, 0u);
    EXPECT_TRUE(untouched());
    ExpectLines(Lines("Security Descr", {}, NTE_NOT_SUPPORTED));
  }
  EXPECT_EQ(AskSize(L"Security Descr"), 0);
  EXPECT_EQ(result_, 0u);
  ExpectLines(Lines("Security Descr", {}, 0));
}

TEST_F(GetKeyPropertyTest, ValuesComeFromTheRecord) {
  record().dwExportPolicy = 0x11223344;
  record().dwKeyUsagePolicy = 0x55667788;
  record().dwKeyBitLength = 1024;
  EXPECT_EQ(Get(L"Export Policy", 4), 0);
  EXPECT_EQ(written(4), Ulong(0x11223344));
  EXPECT_EQ(Get(L"Key Usage", 4), 0);
  EXPECT_EQ(written(4), Ulong(0x55667788));
  EXPECT_EQ(Get(L"Length", 4), 0);
  EXPECT_EQ(written(4), Ulong(1024));
  EXPECT_EQ(Get(L"Block Length", 4), 0);
  EXPECT_EQ(written(4), Ulong(128));
}

TEST_F(GetKeyPropertyTest, BlockLengthIsRoundedUp) {
  const struct {
    DWORD bits;
    DWORD bytes;
  } cases[] = {{0, 0}, {1, 1}, {8, 1}, {9, 2}, {1023, 128}, {1024, 128}, {1025, 129}, {0xFFFFFFFF, 0x20000000}};
  for (const auto& one : cases) {
    record().dwKeyBitLength = one.bits;
    EXPECT_EQ(Get(L"Block Length", 4), 0);
    EXPECT_EQ(written(4), Ulong(one.bytes)) << one.bits;
  }
}

TEST_F(GetKeyPropertyTest, DefaultLengthIsFixedWhateverTheRegistrySays) {
  kit::Registry::Get().SetDword(kit::kProviderKey, L"Default Key Length", 1024);
  EXPECT_EQ(Get(L"Lengths", 16), 0);
  EXPECT_EQ(written(16), Numbers({512, 4096, 512, 2048}));
  EXPECT_EQ(kit::Registry::Get().TakeReads(), std::vector<std::wstring>{});
}

TEST_F(GetKeyPropertyTest, LengthWithThreeBytesTellsThatFourAreNeeded) {
  EXPECT_EQ(Get(L"Length", 3), NTE_BUFFER_TOO_SMALL);
  EXPECT_EQ(result_, 4u);
}

TEST_F(GetKeyPropertyTest, KeyWithoutAName) {
  key_ = Create(nullptr);
  for (const wchar_t* name : {L"Name", L"Unique Name"}) {
    EXPECT_EQ(Get(name, 100), NTE_NOT_SUPPORTED);
    EXPECT_EQ(result_, 0u);
    EXPECT_TRUE(untouched());
    ExpectLines(Lines(Narrow(name), {}, NTE_NOT_SUPPORTED));
    EXPECT_EQ(AskSize(name), NTE_NOT_SUPPORTED);
    EXPECT_EQ(result_, 0u);
    Forget();
  }
}

TEST_F(GetKeyPropertyTest, EmptyAndLongNames) {
  key_ = Create(L"");
  EXPECT_EQ(Get(L"Name", 2), 0);
  EXPECT_EQ(result_, 2u);
  EXPECT_EQ(written(2), WideBytes(L""));
  const std::wstring longest(259, L'n');
  key_ = Create(longest.c_str());
  EXPECT_EQ(AskSize(L"Unique Name"), 0);
  EXPECT_EQ(result_, 520u);
  EXPECT_EQ(Get(L"Unique Name", 520), 0);
  EXPECT_EQ(written(520), WideBytes(longest));
}

TEST_F(GetKeyPropertyTest, KeysOfTheTokenHaveThemAsWell) {
  token().AddKeyPair(Ascii("Key1"), "label", 1024);
  key_ = Open(L"Key1");
  EXPECT_EQ(Get(L"Name", 100), 0);
  EXPECT_EQ(written(10), WideBytes(L"Key1")) << "the name comes from the identifier";
  EXPECT_EQ(Get(L"Length", 4), 0);
  EXPECT_EQ(written(4), Ulong(1024));
  EXPECT_EQ(Get(L"Key Type", 4), 0);
  EXPECT_EQ(written(4), Ulong(0));
}

TEST_F(GetKeyPropertyTest, PersistOnlyFlagIsRefusedWithoutAMessage) {
  for (const DWORD flags : {kPersistOnly, kPersistOnly | 0x80000000, DWORD{0x7FFFFFFF}}) {
    for (const wchar_t* name : {L"Length", L"Unknown"}) {
      EXPECT_EQ(Get(name, 4, flags), NTE_NOT_SUPPORTED);
      EXPECT_EQ(result_, 0u);
      EXPECT_TRUE(untouched());
      ExpectLines(Lines(Narrow(name), {}, NTE_NOT_SUPPORTED));
    }
  }
}

TEST_F(GetKeyPropertyTest, NoOtherFlagIsLookedAt) {
  for (int bit = 0; bit < 32; ++bit) {
    const DWORD flag = DWORD{1} << bit;
    if (flag == kPersistOnly) continue;
    EXPECT_EQ(Get(L"Length", 4, flag), 0) << "bit " << bit;
  }
  EXPECT_EQ(Get(L"Length", 4, ~kPersistOnly), 0);
}

TEST_F(GetKeyPropertyTest, NameOf65CharactersIsTooLong) {
  const std::wstring tooLong(65, L'p');
  EXPECT_EQ(Get(tooLong.c_str(), 4), NTE_INVALID_PARAMETER);
  EXPECT_EQ(result_, 0u);
  ExpectLines(Lines(Narrow(tooLong),
                    {"NTE_INVALID_PARAMETER: Length of pszProperty is longer than NCRYPT_MAX_PROPERTY_NAME"},
                    NTE_INVALID_PARAMETER));
  const std::wstring longest(64, L'p');
  EXPECT_EQ(Get(longest.c_str(), 4), NTE_NOT_SUPPORTED);
  EXPECT_EQ(Get(std::wstring(100000, L'p').c_str(), 4), NTE_INVALID_PARAMETER);
}

TEST_F(GetKeyPropertyTest, ChecksInOrder) {
  const NCRYPT_PROV_HANDLE good = provider_;
  const NCRYPT_KEY_HANDLE goodKey = key_;
  const std::wstring tooLong(65, L'p');
  provider_ = 0;
  key_ = 0;
  EXPECT_EQ(Get(nullptr, 4, kPersistOnly), NTE_INVALID_HANDLE);
  EXPECT_EQ(result_, 0u) << "the length is written on every path";
  ExpectLines(Lines("", {"NTE_INVALID_HANDLE: Invalid provider handle, pProvider is NULL"}, NTE_INVALID_HANDLE));
  provider_ = good;
  EXPECT_EQ(Get(nullptr, 4, kPersistOnly), NTE_INVALID_HANDLE);
  EXPECT_EQ(result_, 0u);
  ExpectLines(Lines("", {"NTE_INVALID_HANDLE: Invalid key handle, pKey is NULL"}, NTE_INVALID_HANDLE));
  key_ = goodKey;
  EXPECT_EQ(Get(nullptr, 4, kPersistOnly), NTE_INVALID_PARAMETER);
  EXPECT_EQ(result_, 0u);
  ExpectLines(Lines("", {"NTE_INVALID_PARAMETER: pszProperty is NULL"}, NTE_INVALID_PARAMETER));
  // The name is judged before the result pointer is.
  EXPECT_EQ(ksp().GetKeyProperty(provider_, key_, tooLong.c_str(), nullptr, 0, nullptr, kPersistOnly),
            NTE_INVALID_PARAMETER);
  std::vector<Line> lines = kit::Log::Get().Take();
  ASSERT_EQ(lines.size(), 12u);
  EXPECT_EQ(lines[9], Line("NTE_INVALID_PARAMETER: Length of pszProperty is longer than NCRYPT_MAX_PROPERTY_NAME"));
  // And the result pointer before the flags.
  EXPECT_EQ(ksp().GetKeyProperty(provider_, key_, L"Length", nullptr, 0, nullptr, kPersistOnly), NTE_INVALID_PARAMETER);
  EXPECT_TRUE(
      kit::SameLines(Frame("KELDAKSPGetKeyProperty",
                           {Hex32("hProvider   : ", provider_), Hex32("hKey        : ", key_), "pszProperty : Length",
                            "pbOutput    : 0x00000000", "cbOutput    : 0x00000000", "pcbResult   : 0x00000000",
                            "dwFlags     : 0x40000000", "NTE_INVALID_PARAMETER: pcbResult is NULL"},
                           NTE_INVALID_PARAMETER),
                     kit::Log::Get().Take()));
}

TEST_F(GetKeyPropertyTest, RefusesForeignHandles) {
  const NCRYPT_PROV_HANDLE good = provider_;
  const NCRYPT_KEY_HANDLE goodKey = key_;
  std::vector<kit::ProviderRecord> providers = BrokenRecords(providerRecord());
  for (kit::ProviderRecord& one : providers) {
    provider_ = reinterpret_cast<NCRYPT_PROV_HANDLE>(&one);
    EXPECT_EQ(Get(L"Length", 4), NTE_INVALID_HANDLE);
    EXPECT_EQ(result_, 0u);
    ExpectLines(
        Lines("Length", {"NTE_INVALID_HANDLE: Invalid provider handle, pProvider is NULL"}, NTE_INVALID_HANDLE));
  }
  provider_ = key_;
  EXPECT_EQ(Get(L"Length", 4), NTE_INVALID_HANDLE);
  provider_ = good;
  Forget();
  std::vector<kit::KeyRecord> keys = BrokenRecords(record());
  for (kit::KeyRecord& one : keys) {
    key_ = reinterpret_cast<NCRYPT_KEY_HANDLE>(&one);
    EXPECT_EQ(Get(L"Length", 4), NTE_INVALID_HANDLE);
    EXPECT_EQ(result_, 0u);
    ExpectLines(Lines("Length", {"NTE_INVALID_HANDLE: Invalid key handle, pKey is NULL"}, NTE_INVALID_HANDLE));
  }
  key_ = provider_;
  EXPECT_EQ(Get(L"Length", 4), NTE_INVALID_HANDLE);
  key_ = goodKey;
}

TEST_F(GetKeyPropertyTest, NullInEveryPointerPosition) {
  for (int missing = 0; missing < 32; ++missing) {
    for (const DWORD room : {DWORD{0}, DWORD{4}}) {
      BYTE output[4] = {kFill, kFill, kFill, kFill};
      DWORD result = kUnwritten;
      const SECURITY_STATUS status =
          ksp().GetKeyProperty(missing & 1 ? 0 : provider_, missing & 2 ? 0 : key_, missing & 4 ? nullptr : L"Length",
                               missing & 8 ? nullptr : output, room, missing & 16 ? nullptr : &result, 0);
      SECURITY_STATUS expected = 0;
      if (missing & 3) {
        expected = NTE_INVALID_HANDLE;
      } else if (missing & 20) {
        expected = NTE_INVALID_PARAMETER;
      } else if (!(missing & 8) && room < 4) {
        expected = NTE_BUFFER_TOO_SMALL;
      }
      EXPECT_EQ(status, expected) << missing;
      EXPECT_EQ(result, missing & 16 ? kUnwritten : missing & 7 ? 0u : 4u) << missing;
    }
  }
}

TEST_F(GetKeyPropertyTest, LargestOutputLengthIsJustALargeRoom) {
  EXPECT_EQ(Get(L"Length", 4), 0);
  DWORD number = 0;
  DWORD result = 0;
  EXPECT_EQ(ksp().GetKeyProperty(provider_, key_, L"Length", reinterpret_cast<BYTE*>(&number), 0xFFFFFFFF, &result, 0),
            0);
  EXPECT_EQ(number, 2048u);
  EXPECT_EQ(result, 4u);
}

}  // namespace
