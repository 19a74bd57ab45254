// How much the token module forgives its callers, as the environment variable KELDA_STRICT tells.
//
// The maker's module forgives a lot, other modules do not. Not set, "" or "0": what the maker's forgives, this one
// does.
//
//   1     What PKCS#11 v2.40 lets a module refuse is refused: a second operation in a session while one is open (one
//         that was only asked for its length among them), a search for 0 objects, values of the wrong length. Private
//         objects are hidden, and their handles void, while nobody is logged in.
//   all   Nothing is adapted either: no searches that only count, no attributes that the token alone may set or that do
//         not belong to the object's class.
#pragma once

namespace softtoken {

enum class Strictness { kForgiving, kStrict, kUnadapted };

Strictness ReadStrictness();

}  // namespace softtoken
