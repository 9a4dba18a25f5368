// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Flitlog/MsgDesc.h>

#include <Flitlog/Ring.h>
#include <Flitlog/detail/Format.h>

#include <cstring>
#include <stdexcept>

namespace Flitlog {

namespace {

void append( std::string & bytes, std::string_view text ) {
   auto const length = static_cast< std::uint32_t >( text.size() );
   bytes.append( reinterpret_cast< char const * >( &length ), sizeof length );
   bytes += text;
}

} // namespace

void MsgFormatString::literal( std::string_view text ) {
   bytes_ += static_cast< char >( detail::PieceKind::literal );
   append( bytes_, text );
   ++pieces_;
}

void MsgFormatString::value( char const * code, bool hex ) {
   bool const single = std::strlen( code ) == 1;
   std::uint32_t const size = single ? detail::valueSize( code[ 0 ] ) : 0;
   if( size == 0 )
      throw std::invalid_argument( "type code \"" + std::string( code ) +
                                   "\": expected b, i, u, l, m, d, s or p" );
   if( hex && !std::strchr( "iulm", code[ 0 ] ) )
      throw std::invalid_argument( "hexadecimal type code \"" + std::string( code ) +
                                   "\": expected i, u, l or m" );
   bytes_ += static_cast< char >( hex ? detail::PieceKind::hexValue : detail::PieceKind::value );
   append( bytes_, code );
   ++pieces_;
   least_ += size;
}

void MsgFormatString::put( char const * code ) { value( code, false ); }

MsgDesc::MsgDesc( TraceFile * file, char const * source, int line )
   : file_( file ), source_( source ), line_( line ) {
   if( !file )
      throw std::invalid_argument( "the descriptor of a trace point needs a file" );
}

MsgDesc & MsgDesc::operator<<( char const * literal ) {
   format_.literal( literal );
   return *this;
}

MsgDesc & MsgDesc::operator<<( Varg part ) {
   format_.value( part.code, false );
   return *this;
}

MsgDesc & MsgDesc::operator<<( HexVarg part ) {
   format_.value( part.code, true );
   return *this;
}

int MsgDesc::finish() {
   detail::DescriptorHead head{};
   head.line = line_;
   head.level = level_;
   head.pieces = format_.pieces_;
   std::string bytes( sizeof head, '\0' );
   append( bytes, handle_ );
   append( bytes, source_ );
   append( bytes, function_ );
   bytes += format_.bytes_;
   bytes.resize( static_cast< std::size_t >( detail::upToEight( bytes.size() ) ), '\0' );
   head.size = static_cast< std::uint32_t >( bytes.size() );
   std::memcpy( bytes.data(), &head, sizeof head );
   return file_->descriptorIs( std::move( bytes ), format_.least_ );
}

} // namespace Flitlog
