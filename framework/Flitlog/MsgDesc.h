// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What a trace point says of itself once, so that its records are numbers and bytes alone.
#pragma once

#include <Flitlog/Export.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace Flitlog {

class TraceFile;

// A variable part, by its type code:
//    "b" bool   "i" int32   "u" uint32   "l" int64   "m" uint64   "d" double
//    "s" bytes of a string   "p" an object, as the bytes of its full name
struct Varg {
   char const * code;
};

// The same, shown in hexadecimal ("0x1f"): "i", "u", "l" and "m" only, signed ones as their bits.
struct HexVarg {
   char const * code;
};

// The pieces of a message, in their order.
class FLITLOG_EXPORT MsgFormatString {
 public:
   // Appends a variable part. Throws std::invalid_argument for an unknown code.
   void put( char const * code );

 private:
   friend class MsgDesc;
   void literal( std::string_view text );
   void value( char const * code, bool hex );

   std::string bytes_; // as in the file
   std::uint32_t pieces_ = 0;
   std::uint32_t least_ = 0; // bytes that the values take at least
};

// The descriptor of one trace point, on its way into a file. Made, filled in the order of the
// message's parts, finished, dropped: once per point and file. Not for the path of every record.
class FLITLOG_EXPORT MsgDesc {
 public:
   // The file is written to by finish(). Throws std::invalid_argument for null.
   MsgDesc( TraceFile * file, char const * source, int line );

   void handleIs( std::string_view handle ) { handle_ = handle; }
   void levelIs( unsigned level ) { level_ = level; }
   void functionIs( std::string_view function ) { function_ = function; }

   MsgDesc & operator<<( char const * literal );
   MsgDesc & operator<<( Varg part ); // throws as MsgFormatString::put does
   MsgDesc & operator<<( HexVarg part );
   MsgFormatString & format() { return format_; }

   // Writes it to the file. Gives its id there, above 0, or -1 when the file has no room left for
   // descriptors, which the file counts.
   int finish();

 private:
   TraceFile * file_;
   std::string source_;
   std::string handle_;
   std::string function_;
   MsgFormatString format_;
   int line_;
   unsigned level_ = 0;
};

} // namespace Flitlog
