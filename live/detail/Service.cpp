// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <live/detail/Service.h>

namespace Live::detail {

namespace {

using namespace Varlink;

constexpr char const * text = R"varlink(# What a service is, and what can be called there.
interface org.varlink.service

# Who made the service, and the names of its interfaces.
method GetInfo() -> (
  vendor: string,
  product: string,
  version: string,
  url: string,
  interfaces: []string
)

# The description of an interface, in this language.
method GetInterfaceDescription(interface: string) -> (description: string)

# There is no such interface here.
error InterfaceNotFound (interface: string)

# The interface has no such method.
error MethodNotFound (method: string)

# The interface has the method, this service does not.
error MethodNotImplemented (method: string)

# A parameter is missing, unknown, or cannot be what it is.
error InvalidParameter (parameter: string)

# The caller may not do this.
error PermissionDenied ()

# The method answers more than once, and the caller does not take more.
error ExpectedMore ()
)varlink";

void invalid( Kiv::Ptr< Call > const & call, std::string const & parameter ) {
   call->fail( errors::invalidParameter, { { "parameter", parameter } } );
}

void getInfo( Kiv::Ptr< Call > const & call, About const & about, Described const & described ) {
   if( !call->parameters().empty() ) {
      invalid( call, call->parameters().begin().key() );
      return;
   }
   Json names = Json::array();
   for( auto const & [ name, description ] : described() )
      names.push_back( name );
   call->reply( { { "vendor", about.vendor },
                  { "product", about.product },
                  { "version", about.version },
                  { "url", about.url },
                  { "interfaces", std::move( names ) } } );
}

void getInterfaceDescription( Kiv::Ptr< Call > const & call, Described const & described ) {
   for( auto const & [ key, value ] : call->parameters().items() ) {
      if( key != "interface" || !value.is_string() ) {
         invalid( call, key );
         return;
      }
   }
   auto const wanted = call->parameters().find( "interface" );
   if( wanted == call->parameters().end() ) {
      invalid( call, "interface" );
      return;
   }
   auto const & interface = wanted->get_ref< std::string const & >();
   for( auto const & [ name, description ] : described() ) {
      if( name == interface ) {
         call->reply( { { "description", description } } );
         return;
      }
   }
   call->fail( errors::interfaceNotFound, { { "interface", interface } } );
}

} // namespace

Interface serviceInterface( About about, Described described ) {
   return {
      "org.varlink.service",
      text,
      { { "GetInfo", [ about = std::move( about ), described ](
                        Kiv::Ptr< Call > const & call ) { getInfo( call, about, described ); } },
        { "GetInterfaceDescription",
          [ described = std::move( described ) ]( Kiv::Ptr< Call > const & call ) {
             getInterfaceDescription( call, described );
          } } } };
}

} // namespace Live::detail
