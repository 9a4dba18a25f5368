// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Cuts a stream of bytes into messages, each ended by one zero byte.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace Live::detail {

// Bytes come in pieces of any size. Each is looked at once, however they were cut.
class Frames {
 public:
   // Bytes that a message may have, the zero byte not counted.
   explicit Frames( std::size_t limit ) : limit_( limit ) {}

   void append( std::string_view bytes ) {
      if( begin_ != 0 && begin_ >= bytes_.size() / 2 ) {
         bytes_.erase( 0, begin_ );
         begin_ = 0;
      }
      bytes_.append( bytes );
      for( std::size_t end; ( end = bytes.find( '\0' ) ) != std::string_view::npos; ) {
         partial_ += end;
         over_ = over_ || partial_ > limit_;
         whole_ += over_ ? 0 : 1;
         partial_ = 0;
         bytes.remove_prefix( end + 1 );
      }
      partial_ += bytes.size();
      over_ = over_ || partial_ > limit_;
   }

   // The next whole message, valid until the next append(). None when there is none, and none of
   // those from the first too long one on.
   std::optional< std::string_view > next() {
      if( whole_ == 0 )
         return std::nullopt;
      --whole_;
      std::size_t const end = bytes_.find( '\0', begin_ );
      std::string_view const message( bytes_.data() + begin_, end - begin_ );
      begin_ = end + 1;
      return message;
   }
   bool hasNext() const { return whole_ != 0; }
   // A message was too long.
   bool over() const { return over_; }
   // Bytes that are kept and were not given out.
   std::size_t size() const { return bytes_.size() - begin_; }

 private:
   std::size_t const limit_;
   std::string bytes_;
   std::size_t begin_ = 0;   // of what was not given out
   std::size_t whole_ = 0;   // messages that can be given out
   std::size_t partial_ = 0; // bytes since the last zero byte
   bool over_ = false;
};

} // namespace Live::detail
