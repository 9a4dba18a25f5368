// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <live/detail/Messages.h>

#include <live/detail/Json.h>

#include <utility>

namespace Live::detail {

using namespace Varlink;

std::string callText( std::string const & method, Json const & parameters, Answers answers,
                      std::size_t limit ) {
   Json call{ { "method", method } };
   if( !parameters.is_null() )
      call[ "parameters" ] = parameters;
   if( answers != Answers::one )
      call[ answers == Answers::none ? "oneway" : "more" ] = true;
   std::string text = textOf( call );
   if( text.size() > limit )
      throw std::length_error( "a call of " + std::to_string( text.size() ) +
                               " bytes is too long to be sent" );
   return text;
}

std::optional< Reply > replyFrom( std::string_view text, unsigned nesting ) {
   auto message = objectFrom( text, nesting );
   if( !message )
      return std::nullopt;
   Reply reply;
   for( auto & [ key, value ] : message->items() ) {
      if( value.is_null() )
         continue;
      if( key == "error" && value.is_string() && !value.get_ref< std::string & >().empty() )
         reply.error = std::move( value.get_ref< std::string & >() );
      else if( key == "parameters" && value.is_object() )
         reply.parameters = std::move( value );
      else if( key == "continues" && value.is_boolean() )
         reply.continues = value.get< bool >();
      else if( key == "error" || key == "parameters" || key == "continues" )
         return std::nullopt;
   }
   if( reply.continues && !reply.error.empty() )
      return std::nullopt;
   return reply;
}

} // namespace Live::detail
