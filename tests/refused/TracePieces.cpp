// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Arrays of characters that are no literals: the ring would show their first content for ever.
#include <Kiv/Trace.h>

struct Named {
   char name[ 8 ] = "name";
};

void pass( Kiv::TraceHandle const & handle, Named const & named, char content, bool first ) {
   static constexpr char constant[] = "constant";
   char buffer[ 8 ] = { content };
   char const constantBuffer[ 8 ] = { content };
   KIV_TRACE( handle, 8, "S", "literal", __func__, constant );
   KIV_TRACE( handle, 8, "S", std::string_view( buffer ), static_cast< char * >( buffer ), &*buffer,
              std::string_view( constantBuffer ), std::string_view( named.name ),
              first ? "first" : "or the second" );
#ifdef A_BUFFER
   KIV_TRACE( handle, 8, "S", buffer );
#endif
#ifdef A_CONSTANT_BUFFER
   KIV_TRACE( handle, 8, "S", constantBuffer );
#endif
#ifdef A_BUFFER_IN_AN_OBJECT
   KIV_TRACE( handle, 8, "S", named.name );
#endif
#ifdef ONE_OF_TWO_LITERALS
   KIV_TRACE( handle, 8, "S", first ? "one" : "two" );
#endif
}
