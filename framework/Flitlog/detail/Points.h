// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Descriptors and values as they are read: bytes that may be anything.
#pragma once

#include <Flitlog/detail/Format.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Flitlog::detail {

// What a descriptor says.
struct Point {
   struct Piece {
      PieceKind kind;
      std::string text; // or the type code
   };
   std::uint32_t id = 0;
   std::int32_t line = 0;
   std::uint32_t level = 0;
   std::string handle;
   std::string source;
   std::string function;
   std::vector< Piece > pieces;
};

// Both return an empty string, or what was expected and what was found, as in
// "expected a string, found 3 bytes".

// REQUIRES: a descriptor's head at least, and as many bytes as its size says.
std::string readPoint( std::string_view entry, Point & point );

// The message, from the values of a record.
std::string readText( Point const & point, std::string_view values, std::string & text );

} // namespace Flitlog::detail
