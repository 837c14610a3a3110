// PBC::test::Tag is the payload of the trie tests: it prints "key=name" and counts its live
// instances, so that a test sees what the trie releases and when. The trie tests use it on one
// thread; the count is not synchronised.
#pragma once

#include "BAS/String.h"

#include <ostream>
#include <string>
#include <utility>

namespace PBC::test {

struct Tag {
  explicit Tag(std::string tagName) : name(std::move(tagName)) { ++live; }
  ~Tag() { --live; }
  Tag(const Tag&) = delete;
  Tag& operator=(const Tag&) = delete;
  void printTree(std::ostream& out, const BAS::String& key) const { out << key << '=' << name << '\n'; }
  std::string name;
  static inline int live = 0;
};

}  // namespace PBC::test
