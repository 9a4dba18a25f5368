// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// JSON read from text, strictly: what is no JSON is refused, and so is what readers do not agree
// about, an object with one key twice, a number that no double can hold, text that is no UTF-8.

namespace Simulation {

class JsonError : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

struct JsonMember;

struct JsonValue {
   enum class Kind { null, boolean, number, text, array, object };

   Kind kind = Kind::null;
   bool boolean = false;
   double number = 0;
   std::string text;
   std::vector< JsonValue > item;
   std::vector< JsonMember > member; // in the order of the text

   // What stands under that key of an object; null if nothing does.
   JsonValue const * find( std::string_view name ) const;
};

struct JsonMember {
   std::string name;
   JsonValue value;
};

// Arrays and objects one in the other, at most.
inline constexpr unsigned jsonDepth = 32;

// The one value that `text` is. Throws JsonError: what is wrong, and at which byte, from 1.
JsonValue jsonValue( std::string_view text );

// Whether both say the same: of objects the order does not count.
bool operator==( JsonValue const & a, JsonValue const & b );

// What a value is, for messages: "an object", "the text \"abc\"", "5".
std::string described( JsonValue const & value );

} // namespace Simulation
