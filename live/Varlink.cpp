// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
//
// A connection is told by the loop that its socket is ready. It reads once, handles the calls that
// are whole, up to one that is answered later, sends what the socket takes, and says what it waits
// for next:
//
//    readable  unless the peer has ended its side, or more than a whole message's limit waits
//    behind
//              a call that has no answer yet
//    writable  while there is something to send
//    gone      always
//
// Its end comes when the peer has ended its side and has got every answer, or is gone and every
// call that it sent before has been handled, or has broken a rule.
#include <live/Varlink.h>

#include <live/detail/Accept.h>
#include <live/detail/Json.h>
#include <live/detail/Service.h>
#include <live/detail/Stream.h>

#include <Kiv/Activity.h>

#include <algorithm>
#include <map>
#include <optional>
#include <stdexcept>
#include <unordered_map>
#include <utility>

#include <poll.h>
#include <sys/socket.h>

namespace Live::Varlink {

Connection::Connection() = default;
Connection::~Connection() = default;
Call::Call() = default;
Call::~Call() = default;

namespace {

// How many calls one connection gets in a turn of the loop, if it has sent so many.
constexpr unsigned callsOfTurn = 256;

struct Request {
   std::string method;
   Json parameters = Json::object();
   bool oneway = false;
   bool more = false;
   bool upgrade = false;
};

// A flag that is not there, or null, is false. None for one that is something else.
std::optional< bool > flagOf( Json const & message, char const * name ) {
   auto const found = message.find( name );
   if( found == message.end() || found->is_null() )
      return false;
   if( !found->is_boolean() )
      return std::nullopt;
   return found->get< bool >();
}

// None for what is no call. Members that are not known are for others to know.
std::optional< Request > requestFrom( std::string_view text, unsigned nesting ) {
   auto message = detail::objectFrom( text, nesting );
   if( !message )
      return std::nullopt;
   auto const method = message->find( "method" );
   auto const oneway = flagOf( *message, "oneway" );
   auto const more = flagOf( *message, "more" );
   auto const upgrade = flagOf( *message, "upgrade" );
   if( method == message->end() || !method->is_string() || !oneway || !more || !upgrade )
      return std::nullopt;
   Request request{ std::move( method->get_ref< std::string & >() ), Json::object(), *oneway,
                    *more && !*oneway, *upgrade };
   auto const parameters = message->find( "parameters" );
   if( parameters != message->end() && !parameters->is_null() ) {
      if( !parameters->is_object() )
         return std::nullopt;
      request.parameters = std::move( *parameters );
   }
   return request;
}

class OpenCall;

class OpenConnection : public Connection {
 public:
   OpenConnection( Server::Impl & server, detail::Descriptor fd, Peer const & peer );

   Peer const & peer() const override { return peer_; }
   bool open() const override { return open_; }
   void close() override;
   // The server is destroyed: nobody is told of anything.
   void closeSilently();

   void start() { watch(); }
   void send( Json const & message );
   bool room() const;
   // The call has got its last answer.
   void finished();
   // Nobody will answer the call any more.
   void abandoned();

 private:
   void ready( unsigned events );
   void work();
   void settle();
   void handle( std::string_view message );
   void route( Kiv::Ptr< OpenCall > const & call, bool upgrade );
   void refuse();
   void workLater();
   void watch();
   void endCurrent();

   Server::Impl * server_;
   detail::Stream stream_;
   Peer const peer_;
   OpenCall * current_ = nullptr; // the call that is to be answered next
   unsigned watched_ = 0;
   bool open_ = true;
   bool working_ = false;   // answers are sent together when all that can be handled was
   bool later_ = false;     // work() was posted
   bool abandoned_ = false; // a call was, so the connection ends
};

class OpenCall : public Call {
 public:
   OpenCall( Kiv::Ptr< OpenConnection > connection, Request request )
      : connection_( std::move( connection ) ), request_( std::move( request ) ) {}
   ~OpenCall() override {
      if( !over_ && !oneway() )
         connection_->abandoned();
   }

   std::string const & method() const override { return request_.method; }
   Json const & parameters() const override { return request_.parameters; }
   bool more() const override { return request_.more; }
   bool oneway() const override { return request_.oneway; }
   Kiv::Ptr< Connection > connection() const override { return connection_; }
   bool over() const override { return over_; }

   void reply( Json const & parameters ) override { last( message( parameters ) ); }
   void fail( std::string_view error, Json const & parameters ) override {
      Json answer = message( parameters );
      answer[ "error" ] = error;
      last( answer );
   }
   bool replyMore( Json const & parameters ) override {
      if( over_ || !more() || !room() )
         return false;
      Json answer = message( parameters );
      answer[ "continues" ] = true;
      connection_->send( answer );
      full_ = !room();
      return true;
   }
   bool room() const override { return connection_->room(); }
   void onRoomIs( std::function< void() > room ) override { room_ = std::move( room ); }
   void onGoneIs( std::function< void() > gone ) override { gone_ = std::move( gone ); }

   bool hasRoomAgain() const { return full_ && room(); }
   void tellRoom() {
      if( !hasRoomAgain() )
         return;
      full_ = false;
      // A copy: what is called may set another one.
      if( auto const tell = room_ )
         tell();
   }
   // Ended by the peer, or by the connection's end.
   void end( bool tell ) {
      Kiv::Ptr< OpenCall > const self( this );
      over_ = true;
      room_ = nullptr;
      auto const gone = std::exchange( gone_, nullptr );
      if( tell && gone )
         gone();
   }

 private:
   static Json message( Json const & parameters ) {
      return { { "parameters", parameters.is_null() ? Json::object() : parameters } };
   }
   void last( Json const & answer ) {
      if( over_ || oneway() ) {
         over_ = true;
         return;
      }
      connection_->send( answer );
      Kiv::Ptr< OpenCall > const self( this ); // the functions may hold the last other one
      over_ = true;
      room_ = nullptr;
      gone_ = nullptr;
      connection_->finished();
   }

   Kiv::Ptr< OpenConnection > const connection_;
   Request const request_;
   std::function< void() > room_;
   std::function< void() > gone_;
   bool full_ = false; // there was no room after its last answer
   bool over_ = false;
};

} // namespace

class Server::Impl {
 public:
   Impl( int listening, About about, Limits const & limits )
      : limits_( limits ),
        accept_( listening, [ this ]( detail::Descriptor fd ) { take( std::move( fd ) ); } ),
        peer_( detail::peerOf ) {
      interfaceIs(
         detail::serviceInterface( std::move( about ), [ this ] { return described(); } ) );
   }
   ~Impl() {
      // What the end of a call lets go of may close other connections.
      closed_ = nullptr;
      auto const all = std::move( connections_ );
      for( auto const & [ connection, kept ] : all )
         connection->closeSilently();
   }

   Limits const & limits() const { return limits_; }
   std::size_t connections() const { return connections_.size(); }
   void interfaceIs( Interface interface ) {
      auto name = interface.name;
      interfaces_[ std::move( name ) ] =
         std::make_shared< Interface const >( std::move( interface ) );
   }
   std::shared_ptr< Interface const > interface( std::string_view name ) const {
      auto const found = interfaces_.find( name );
      return found == interfaces_.end() ? nullptr : found->second;
   }
   void onClosedIs( std::function< void( Kiv::Ptr< Connection > const & ) > closed ) {
      closed_ = std::move( closed );
   }
   void peerIs( std::function< Peer( int ) > peer ) { peer_ = std::move( peer ); }

   void remove( OpenConnection & connection ) {
      uid_t const uid = connection.peer().uid;
      connections_.erase( &connection );
      if( auto const user = users_.find( uid ); user != users_.end() && --user->second == 0 )
         users_.erase( user );
      accept_.retry();
   }
   void tellClosed( Kiv::Ptr< Connection > const & connection ) {
      if( auto const tell = closed_ )
         tell( connection );
   }

 private:
   // Those that are too many are closed with their descriptor.
   void take( detail::Descriptor fd ) {
      Peer const peer = peer_( fd.get() );
      if( connections_.size() >= limits_.connections )
         return;
      bool const trusted = peer.uid == 0 || peer.uid == geteuid();
      auto const user = users_.find( peer.uid );
      if( !trusted && user != users_.end() && user->second >= limits_.connectionsOfUser )
         return;
      if( !trusted && limits_.connectionsOfUser == 0 )
         return;
      std::size_t & ofUser = users_[ peer.uid ];
      Kiv::Ptr< OpenConnection > const connection(
         new OpenConnection( *this, std::move( fd ), peer ) );
      connections_.emplace( connection.get(), connection );
      ++ofUser;
      connection->start();
   }
   std::vector< std::pair< std::string, std::string > > described() const {
      std::vector< std::pair< std::string, std::string > > all;
      for( auto const & [ name, interface ] : interfaces_ )
         all.emplace_back( name, interface->description );
      return all;
   }

   Limits const limits_;
   detail::Accept accept_;
   std::function< Peer( int ) > peer_;
   std::map< std::string, std::shared_ptr< Interface const >, std::less<> > interfaces_;
   std::unordered_map< OpenConnection *, Kiv::Ptr< OpenConnection > > connections_;
   std::map< uid_t, std::size_t > users_; // connections of each
   std::function< void( Kiv::Ptr< Connection > const & ) > closed_;
};

namespace {

OpenConnection::OpenConnection( Server::Impl & server, detail::Descriptor fd, Peer const & peer )
   : server_( &server ), stream_( std::move( fd ), server.limits().received ), peer_( peer ) {}

bool OpenConnection::room() const { return open_ && stream_.unsent() <= server_->limits().unread; }

void OpenConnection::ready( unsigned events ) {
   Kiv::Ptr< OpenConnection > const self( this );
   try {
      if( ( events & ( POLLHUP | POLLERR ) ) != 0 )
         stream_.goneIs();
      else if( ( events & POLLOUT ) != 0 )
         stream_.flush();
      bool const wanted = ( watched_ & POLLIN ) != 0 || stream_.gone();
      if( wanted && !stream_.ended() )
         stream_.receive();
   } catch( std::bad_alloc const & ) {
      close(); // its memory may be what the others need
      throw;
   }
   work();
}

void OpenConnection::work() {
   Kiv::Ptr< OpenConnection > const self( this );
   working_ = true;
   try {
      if( stream_.gone() )
         endCurrent();
      if( current_ )
         current_->tellRoom();
      for( unsigned calls = 0; calls != callsOfTurn && !current_ && !abandoned_ && room();
           ++calls ) {
         auto const message = stream_.in().next();
         if( !message )
            break;
         handle( *message );
         if( stream_.gone() )
            endCurrent();
      }
   } catch( ... ) {
      working_ = false;
      close();
      throw;
   }
   working_ = false;
   settle();
}

// Sends, ends the connection if it is time, else waits for what comes next.
void OpenConnection::settle() {
   if( !open_ )
      return;
   stream_.flush();
   auto const & in = stream_.in();
   bool const idle = !current_ && !in.hasNext();
   if( abandoned_ || ( in.over() && ( idle || current_ ) ) ||
       ( stream_.ended() && idle && stream_.unsent() == 0 ) ) {
      close();
      return;
   }
   // What the socket has just taken at once is told by nobody else.
   bool const goesOn =
      current_ ? stream_.gone() || current_->hasRoomAgain() : in.hasNext() && room();
   if( goesOn )
      workLater();
   watch();
}

void OpenConnection::handle( std::string_view message ) {
   auto request = requestFrom( message, server_->limits().nesting );
   if( !request ) {
      refuse();
      return;
   }
   bool const upgrade = request->upgrade;
   Kiv::Ptr< OpenCall > const call( new OpenCall( this, std::move( *request ) ) );
   if( !call->oneway() )
      current_ = call.get();
   route( call, upgrade );
}

void OpenConnection::route( Kiv::Ptr< OpenCall > const & call, bool upgrade ) {
   std::string const & full = call->method();
   std::size_t const dot = full.rfind( '.' );
   bool const named = dot != std::string::npos;
   std::string const of = full.substr( 0, named ? dot : full.size() );
   auto const interface = server_->interface( of ); // kept: a method may end the server
   if( !named || !interface ) {
      call->fail( errors::interfaceNotFound, { { "interface", of } } );
      return;
   }
   auto const & methods = interface->method;
   std::string_view const name = std::string_view( full ).substr( dot + 1 );
   auto const method = std::find_if( methods.begin(), methods.end(),
                                     [ & ]( Method const & m ) { return m.name == name; } );
   if( method == methods.end() )
      call->fail( errors::methodNotFound, { { "method", full } } );
   else if( !method->handle || upgrade )
      call->fail( errors::methodNotImplemented, { { "method", full } } );
   else if( method->needsMore && !call->more() )
      call->fail( errors::expectedMore, nullptr );
   else
      method->handle( call );
}

void OpenConnection::send( Json const & message ) {
   std::string const text = detail::textOf( message );
   if( !open_ )
      return;
   if( text.size() > server_->limits().sent )
      throw std::length_error( "a message of " + std::to_string( text.size() ) +
                               " bytes is too long to be sent" );
   stream_.append( text );
   if( working_ )
      return;
   stream_.flush();
   watch();
}

void OpenConnection::finished() {
   current_ = nullptr;
   if( open_ && !working_ )
      workLater();
}

void OpenConnection::abandoned() {
   current_ = nullptr;
   abandoned_ = true;
   if( open_ && !working_ )
      workLater();
}

void OpenConnection::refuse() {
   stream_.flush(); // answers to what came before
   close();
}

void OpenConnection::workLater() {
   if( later_ )
      return;
   try {
      Kiv::activityManager()->post( [ self = Kiv::Ptr< OpenConnection >( this ) ] {
         self->later_ = false;
         if( self->open_ )
            self->work();
      } );
      later_ = true;
   } catch( std::bad_alloc const & ) {
      close();
   }
}

void OpenConnection::watch() {
   bool const reading = !stream_.ended() && stream_.in().size() <= server_->limits().received;
   unsigned events = ( reading ? POLLIN : 0U ) | ( stream_.unsent() != 0 ? POLLOUT : 0U );
   if( events == 0 )
      events = POLLHUP; // which is told always, and is no end of the watch, as 0 would be
   if( events == watched_ )
      return;
   try {
      Kiv::activityManager()->descriptorIs( stream_.descriptor(), events,
                                            [ this ]( unsigned now ) { ready( now ); } );
      watched_ = events;
   } catch( std::exception const & ) {
      close(); // it would wait for ever
   }
}

void OpenConnection::endCurrent() {
   if( OpenCall * const call = std::exchange( current_, nullptr ) )
      call->end( true );
}

void OpenConnection::close() {
   if( !open_ )
      return;
   Kiv::Ptr< OpenConnection > const self( this );
   open_ = false;
   Kiv::activityManager()->descriptorDel( stream_.descriptor() );
   stream_.close();
   stream_.goneIs();
   if( server_ )
      server_->remove( *this );
   endCurrent();
   if( server_ )
      server_->tellClosed( self );
}

void OpenConnection::closeSilently() {
   server_ = nullptr;
   open_ = false;
   Kiv::activityManager()->descriptorDel( stream_.descriptor() );
   stream_.close();
   if( OpenCall * const call = std::exchange( current_, nullptr ) )
      call->end( false );
}

} // namespace

Server::Server( int listening, About about, Limits const & limits )
   : impl_( std::make_unique< Impl >( listening, std::move( about ), limits ) ) {}
Server::~Server() = default;
Limits const & Server::limits() const { return impl_->limits(); }
void Server::interfaceIs( Interface interface ) { impl_->interfaceIs( std::move( interface ) ); }
void Server::onClosedIs( std::function< void( Kiv::Ptr< Connection > const & ) > closed ) {
   impl_->onClosedIs( std::move( closed ) );
}
std::size_t Server::connections() const { return impl_->connections(); }
void Server::peerIs( std::function< Peer( int ) > peer ) { impl_->peerIs( std::move( peer ) ); }

} // namespace Live::Varlink
