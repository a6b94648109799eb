#pragma once

#include <utility>

/// Lets a test name private members without any change to the class under test.
///
/// Access is not checked in the arguments of an explicit template instantiation. `AHS_EXPOSE` uses
/// one to hand a pointer to the member to a function that a tag type finds; `member`, `call` and
/// `exposed` take it from there. To be used at global scope, in a header.
namespace tests {

template <class Tag, auto Member>
struct Exposed {
  friend constexpr auto exposed(Tag) { return Member; }
};

/// The data member that `Tag` stands for.
template <class Tag, class Object>
auto& member(Object& object) {
  return object.*exposed(Tag{});
}

/// Calls the member function that `Tag` stands for.
template <class Tag, class Object, class... Args>
decltype(auto) call(Object& object, Args&&... args) {
  return (object.*exposed(Tag{}))(std::forward<Args>(args)...);
}

}  // namespace tests

#define AHS_EXPOSE(Tag, Member)         \
  namespace tests {                     \
  struct Tag {                          \
    friend constexpr auto exposed(Tag); \
  };                                    \
  template struct Exposed<Tag, Member>; \
  }                                     \
  static_assert(true, "takes a semicolon")
