#include "support/bounded_copy.h"

#include <limits>

#include <gtest/gtest.h>

#include "kit/wide.h"

namespace {

constexpr wchar_t kUntouched = L'#';

// Copies into a room of cch characters inside a larger buffer and checks that nothing behind the room is written.
struct Copied {
  std::uint32_t status;
  Wide buffer;
};

Copied Copy(std::size_t cch, const Wide& source) {
  Wide buffer(16, kUntouched);
  const std::uint32_t status = BoundedCopy(buffer.data(), cch, source.data());
  for (std::size_t i = cch; i < buffer.size(); ++i)
    EXPECT_EQ(buffer[i], kUntouched) << i;
  return {status, buffer};
}

TEST(BoundedCopy, CopiesWhatFits) {
  const Copied copied = Copy(8, Wz("Key1"));
  EXPECT_EQ(copied.status, 0u);
  EXPECT_EQ(UpToTerminator(copied.buffer.data()), W("Key1"));
  EXPECT_EQ(copied.buffer[5], kUntouched) << "nothing behind the terminator is written";
}

TEST(BoundedCopy, CopiesWhatFitsExactly) {
  const Copied copied = Copy(5, Wz("Key1"));
  EXPECT_EQ(copied.status, 0u);
  EXPECT_EQ(UpToTerminator(copied.buffer.data()), W("Key1"));
}

TEST(BoundedCopy, CutsWhatDoesNotFit) {
  const Copied copied = Copy(4, Wz("Key1"));
  EXPECT_EQ(copied.status, 0x8007007Au);
  EXPECT_EQ(UpToTerminator(copied.buffer.data()), W("Key"));
}

TEST(BoundedCopy, ARoomOfOneHoldsTheTerminatorOnly) {
  const Copied cut = Copy(1, Wz("K"));
  EXPECT_EQ(cut.status, 0x8007007Au);
  EXPECT_EQ(cut.buffer[0], L'\0');
  const Copied empty = Copy(1, Wz(""));
  EXPECT_EQ(empty.status, 0u);
  EXPECT_EQ(empty.buffer[0], L'\0');
}

TEST(BoundedCopy, AnImpossibleRoomCopiesNothing) {
  Wide buffer(4, kUntouched);
  const Wide source = Wz("Key1");
  for (const std::size_t cch :
       {std::size_t{0}, std::size_t{0x80000000}, std::size_t{0xFFFFFFFF}, std::numeric_limits<std::size_t>::max()}) {
    EXPECT_EQ(BoundedCopy(buffer.data(), cch, source.data()), 0x80070057u) << cch;
    EXPECT_EQ(buffer, Wide(4, kUntouched)) << cch;
  }
}

TEST(BoundedCopy, TheLargestRoomIsAccepted) {
  Wide buffer(8, kUntouched);
  EXPECT_EQ(BoundedCopy(buffer.data(), 0x7FFFFFFF, Wz("Key1").data()), 0u);
  EXPECT_EQ(UpToTerminator(buffer.data()), W("Key1"));
}

TEST(BoundedCopy, NullPointersDoNoHarm) {
  EXPECT_EQ(BoundedCopy(nullptr, 8, Wz("Key1").data()), 0x80070057u);
  Wide buffer(4, kUntouched);
  EXPECT_EQ(BoundedCopy(buffer.data(), buffer.size(), nullptr), 0u);
  EXPECT_EQ(buffer[0], L'\0');
}

TEST(BoundedCopy, KeepsAllSixteenBits) {
  Wide buffer(4, kUntouched);
  const Wide source{L'\x20AC', L'\xFFFF', L'\0'};
  EXPECT_EQ(BoundedCopy(buffer.data(), buffer.size(), source.data()), 0u);
  EXPECT_EQ(UpToTerminator(buffer.data()), (Wide{L'\x20AC', L'\xFFFF'}));
}

}  // namespace
