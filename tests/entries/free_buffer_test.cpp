// FreeBuffer: releases what any entry handed out.
#include "kit/key_entry.h"

namespace {

using kit::Frame;
using kit::Pointer32;

class FreeBufferTest : public KeyEntryTest {};

TEST_F(FreeBufferTest, FreeBufferTakesNull) {
  EXPECT_EQ(ksp().FreeBuffer(nullptr), 0);
  ExpectLines(Frame("KELDAKSPFreeBuffer", {Pointer32("pvInput: ", nullptr)}, 0));
  ExpectCalls({});
}

TEST_F(FreeBufferTest, FreeBufferReleasesWhatWasHandedOut) {
  token().AddKeyPair(fake::Ascii("Key1"), "");
  kit::MemoryWatch watch;
  NCryptKeyName* name = nullptr;
  PVOID state = nullptr;
  ASSERT_EQ(ksp().EnumKeys(provider_, nullptr, &name, &state, 0), 0);
  DWORD count = 0;
  NCryptAlgorithmName* list = nullptr;
  ASSERT_EQ(ksp().EnumAlgorithms(provider_, 0, &count, &list, 0), 0);
  for (void* const buffer : {static_cast<void*>(name), state, static_cast<void*>(list)}) {
    Forget();
    EXPECT_EQ(watch.Live().count(buffer), 1u);
    EXPECT_EQ(ksp().FreeBuffer(buffer), 0);
    ExpectLines(Frame("KELDAKSPFreeBuffer", {Pointer32("pvInput: ", buffer)}, 0));
    EXPECT_TRUE(watch.WasFreed(buffer));
  }
}

}  // namespace
