// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <live/VarlinkClient.h>

#include <live/detail/Accept.h>
#include <live/detail/Messages.h>
#include <live/detail/Stream.h>

#include <Kiv/Activity.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <deque>
#include <system_error>
#include <utility>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace Live::Varlink {

namespace {

[[noreturn]] void fail( int error, std::string const & what ) {
   throw std::system_error( error, std::generic_category(), what );
}

// Answers are handed on in bursts of so many, then others have their turn.
constexpr unsigned answersOfTurn = 256;

} // namespace

int connectedSocket( std::string const & path ) {
   sockaddr_un address{};
   address.sun_family = AF_UNIX;
   if( path.empty() || path.size() >= sizeof address.sun_path )
      fail( path.empty() ? ENOENT : ENAMETOOLONG, path );
   std::memcpy( address.sun_path, path.data(), path.size() );
   detail::Descriptor fd( ::socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0 ) );
   if( fd.get() < 0 )
      fail( errno, "socket" );
   // A local socket is connected at once or not at all.
   while( ::connect( fd.get(), reinterpret_cast< sockaddr const * >( &address ), sizeof address ) !=
          0 )
      if( errno != EINTR )
         fail( errno, path );
   return fd.release();
}

class Client::Impl : public Kiv::PtrInterface {
 public:
   Impl( int connected, Limits const & limits )
      : limits_( limits ), stream_( detail::Descriptor( connected ), limits.sent ) {
      Kiv::activityManager()->descriptorIs( connected, POLLIN,
                                            [ this ]( unsigned now ) { ready( now ); } );
      watched_ = POLLIN;
      open_ = true;
   }

   bool call( std::string const & method, Json const & parameters, Answer answer,
              Answers answers ) {
      if( !room() )
         return false;
      std::string const text = detail::callText( method, parameters, answers, limits_.received );
      if( answers != Answers::none )
         waiting_.push_back( { std::move( answer ), answers == Answers::more } );
      try {
         stream_.append( text );
      } catch( ... ) {
         if( answers != Answers::none )
            waiting_.pop_back();
         throw;
      }
      if( !working_ )
         stream_.flush();
      full_ = !room();
      if( !working_ ) {
         if( stream_.gone() )
            workLater(); // which tells of it
         else
            watch();
      }
      return true;
   }
   bool room() const { return open_ && stream_.unsent() <= limits_.unread; }
   bool open() const { return open_; }
   Peer peer() const { return detail::peerOf( stream_.descriptor() ); }
   void onRoomIs( std::function< void() > room ) { room_ = std::move( room ); }
   void onClosedIs( std::function< void() > closed ) { closed_ = std::move( closed ); }

   void close() {
      if( !std::exchange( open_, false ) )
         return;
      Kiv::Ptr< Impl > const self( Kiv::kept( this ) );
      Kiv::activityManager()->descriptorDel( stream_.descriptor() );
      stream_.close();
      // These may hold the last reference to much else.
      auto const waiting = std::exchange( waiting_, {} );
      auto const room = std::exchange( room_, nullptr );
      closed_ = nullptr;
   }

 private:
   struct Waiting {
      Answer answer;
      bool more;
   };

   void ready( unsigned events ) {
      Kiv::Ptr< Impl > const self( this );
      try {
         if( ( events & POLLOUT ) != 0 )
            stream_.flush();
         if( ( events & ~unsigned{ POLLOUT } ) != 0 && !stream_.ended() )
            stream_.receive();
      } catch( std::bad_alloc const & ) {
         end();
         throw;
      }
      work();
   }

   void work() {
      Kiv::Ptr< Impl > const self( this );
      working_ = true;
      bool good = true;
      try {
         if( stream_.gone() && !stream_.ended() )
            stream_.receive(); // the last that it said
         if( full_ && room() ) {
            full_ = false;
            if( auto const tell = room_ )
               tell();
         }
         for( unsigned count = 0; good && open_ && count != answersOfTurn; ++count ) {
            auto const message = stream_.in().next();
            if( !message )
               break;
            good = handle( *message );
         }
      } catch( ... ) {
         working_ = false;
         settle( good );
         throw;
      }
      working_ = false;
      settle( good );
   }

   bool handle( std::string_view message ) {
      auto const reply = detail::replyFrom( message, limits_.nesting );
      if( !reply || waiting_.empty() || ( reply->continues && !waiting_.front().more ) )
         return false;
      Answer answer;
      if( reply->continues ) {
         answer = waiting_.front().answer;
      } else {
         answer = std::move( waiting_.front().answer );
         waiting_.pop_front();
      }
      if( answer )
         answer( *reply );
      return true;
   }

   void settle( bool good ) {
      if( !open_ )
         return;
      stream_.flush();
      bool const more = stream_.in().hasNext();
      bool const last = stream_.in().over() || stream_.ended() || stream_.gone();
      if( !good || ( !more && last ) )
         end();
      else if( more || ( full_ && room() ) )
         workLater();
      if( open_ )
         watch();
   }

   // Not by close(): somebody is to be told.
   void end() {
      auto const closed = std::exchange( closed_, nullptr );
      close();
      if( closed )
         closed();
   }

   void workLater() {
      Kiv::activityManager()->post( [ self = Kiv::Ptr< Impl >( this ) ] {
         if( self->open_ )
            self->work();
      } );
   }

   void watch() {
      bool const reading = !stream_.ended() && stream_.in().size() <= limits_.sent;
      unsigned events = ( reading ? POLLIN : 0U ) | ( stream_.unsent() != 0 ? POLLOUT : 0U );
      if( events == 0 )
         events = POLLHUP;
      if( events == watched_ )
         return;
      try {
         Kiv::activityManager()->descriptorIs( stream_.descriptor(), events,
                                               [ this ]( unsigned now ) { ready( now ); } );
         watched_ = events;
      } catch( ... ) {
         watched_ = 0; // the next message or answer tries it again
         throw;
      }
   }

   Limits const limits_;
   detail::Stream stream_;
   std::deque< Waiting > waiting_;
   std::function< void() > room_;
   std::function< void() > closed_;
   unsigned watched_ = 0;
   bool open_ = false;
   bool working_ = false;
   bool full_ = false;
};

Client::Client( int connected, Limits const & limits ) : impl_( new Impl( connected, limits ) ) {}
Client::~Client() { impl_->close(); }
bool Client::call( std::string const & method, Json const & parameters, Answer answer,
                   Answers answers ) {
   return impl_->call( method, parameters, std::move( answer ), answers );
}
bool Client::room() const { return impl_->room(); }
void Client::onRoomIs( std::function< void() > room ) { impl_->onRoomIs( std::move( room ) ); }
bool Client::open() const { return impl_->open(); }
void Client::close() { impl_->close(); }
void Client::onClosedIs( std::function< void() > closed ) {
   impl_->onClosedIs( std::move( closed ) );
}
Peer Client::peer() const { return impl_->peer(); }

class Caller::Impl {
 public:
   Impl( int connected, double timeout, Limits const & limits )
      : limits_( limits ), timeout_( timeout ),
        stream_( detail::Descriptor( connected ), limits.sent ) {}

   int descriptor() const { return stream_.descriptor(); }

   void send( std::string const & method, Json const & parameters, Answers answers ) {
      stream_.append( detail::callText( method, parameters, answers, limits_.received ) );
      auto const deadline = deadlineFromNow();
      for( stream_.flush(); stream_.unsent() != 0; stream_.flush() ) {
         // Its answers are read meanwhile: the other side may not go on before.
         bool const reading = !stream_.ended() && !stream_.in().over();
         wait( reading ? POLLIN | POLLOUT : POLLOUT, deadline );
         receive();
      }
      if( !stream_.gone() )
         return;
      receive(); // it may have said why
      if( !stream_.in().hasNext() )
         fail( ECONNRESET, "the connection has ended" );
   }

   Reply next() {
      auto const deadline = deadlineFromNow();
      while( true ) {
         if( auto const message = stream_.in().next() ) {
            auto reply = detail::replyFrom( *message, limits_.nesting );
            if( !reply )
               fail( EPROTO, "the answer is none" );
            return std::move( *reply );
         }
         if( stream_.in().over() )
            fail( EPROTO, "the answer is too long" );
         if( stream_.ended() )
            fail( ECONNRESET, "the connection has ended" );
         wait( POLLIN, deadline );
         receive();
      }
   }

 private:
   using Time = std::chrono::steady_clock;

   // More than some years is for ever.
   Time::time_point deadlineFromNow() const {
      if( !( timeout_ < 1e8 ) )
         return Time::time_point::max();
      return Time::now() + std::chrono::duration_cast< Time::duration >(
                              std::chrono::duration< double >( std::fmax( timeout_, 0.0 ) ) );
   }
   void receive() {
      if( !stream_.ended() && !stream_.in().over() )
         stream_.receive();
   }
   void wait( short events, Time::time_point deadline ) const {
      pollfd watched{ stream_.descriptor(), events, 0 };
      while( true ) {
         int delay = -1;
         if( deadline != Time::time_point::max() ) {
            auto const left =
               std::chrono::ceil< std::chrono::milliseconds >( deadline - Time::now() ).count();
            delay = static_cast< int >( std::clamp< long long >( left, 0, 3600 * 1000 ) );
         }
         int const ready = ::poll( &watched, 1, delay );
         if( ready > 0 )
            return;
         if( ready < 0 && errno != EINTR )
            fail( errno, "poll" );
         if( ready == 0 && Time::now() >= deadline )
            fail( ETIMEDOUT, "no answer in time" );
      }
   }

   Limits const limits_;
   double const timeout_;
   detail::Stream stream_;
};

Caller::Caller( int connected, double timeout, Limits const & limits )
   : impl_( std::make_unique< Impl >( connected, timeout, limits ) ) {}
Caller::~Caller() = default;
Reply Caller::call( std::string const & method, Json const & parameters ) {
   send( method, parameters, Answers::one );
   return next();
}
void Caller::send( std::string const & method, Json const & parameters, Answers answers ) {
   impl_->send( method, parameters, answers );
}
Reply Caller::next() { return impl_->next(); }
int Caller::descriptor() const { return impl_->descriptor(); }

} // namespace Live::Varlink
