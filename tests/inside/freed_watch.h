// What operator delete of the test program is given while a watch lives: for classes that are compiled into it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <map>
#include <vector>

#include "fake_token/fake_token.h"

struct FreedBlock {
  const void* address;
  fake::Bytes contents;
};

// Every block that operator delete was given, and the next block given at followed addresses.
struct FreedNotes {
  void Add(const void* block, std::size_t size) {
    const auto* bytes = static_cast<const unsigned char*>(block);
    freed.push_back({block, fake::Bytes(bytes, bytes + size)});
    const auto found = followed.find(block);
    if (found != followed.end() && found->second.empty()) found->second = freed.back().contents;
  }

  std::vector<FreedBlock> freed;
  std::map<const void*, fake::Bytes> followed;
};

// One at a time.
class FreedWatch {
 public:
  FreedWatch();
  ~FreedWatch();
  FreedWatch(const FreedWatch&) = delete;
  FreedWatch& operator=(const FreedWatch&) = delete;

  // To be called while the block lives: its release will be known from those of later blocks at the same address.
  void Follow(const void* address) { notes_.followed[address].clear(); }
  bool Released(const void* address) const { return !notes_.followed.at(address).empty(); }
  // What the followed block held when it was released.
  const fake::Bytes& Contents(const void* address) const { return notes_.followed.at(address); }
  bool Wiped(const void* address, std::size_t size) const {
    const fake::Bytes& contents = Contents(address);
    return contents.size() >= size && IsZero(contents);
  }

  bool Contains(const fake::Bytes& bytes) const {
    return std::any_of(notes_.freed.begin(), notes_.freed.end(), [&](const FreedBlock& one) {
      return std::search(one.contents.begin(), one.contents.end(), bytes.begin(), bytes.end()) != one.contents.end();
    });
  }
  // Blocks that held nothing but zeros, by their exact size.
  std::size_t Cleared(std::size_t size) const {
    return static_cast<std::size_t>(std::count_if(notes_.freed.begin(), notes_.freed.end(), [&](const FreedBlock& one) {
      return one.contents.size() == size && IsZero(one.contents);
    }));
  }

 private:
  static bool IsZero(const fake::Bytes& bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](unsigned char value) { return value == 0; });
  }
  FreedNotes notes_;
};
