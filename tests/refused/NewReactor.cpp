// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Reactors that would never be told of anything, or not of what they look as if they were. All that
// stands outside of MISTAKEN is right, and has to compile without a warning.
#include <Ordovan/Ordovan.h>

#include <tuple>

using Kiv::newReactor;

namespace {

using Stage::EventConfig;
using Stage::Status;

// What the reactors here share: they watch from the moment on in which they exist.
template< class Notifiee, class Watched >
struct Watches : Notifiee {
   explicit Watches( Kiv::Ptr< Watched > const & object ) { this->watch( object ); }
};
using OfStatus = Watches< Status::NotifieeConst, Status const >;
using OfEvent = Watches< EventConfig::NotifieeConst, EventConfig const >;

// ---- right

struct ForAKey : OfStatus {
   using OfStatus::OfStatus;
   using OfStatus::onStage;
   void onStage( Kiv::Name ) override {}
};
struct AllForms : OfStatus {
   using OfStatus::OfStatus;
   void onStage( Kiv::Name ) override {}
   void onStage() override {}
   void onStagekivImmediate() override {}
};
struct OneValue final : OfEvent {
   using OfEvent::OfEvent;
   void onTimeout() noexcept override {}
};
class NotPublic : public OfStatus {
 public:
   using OfStatus::OfStatus;

 protected:
   using OfStatus::onStage;
   void onStage( Kiv::Name ) override {}

 private:
   void onComplete() override {}
};
struct ByItsBase : ForAKey {
   using ForAKey::ForAKey;
};
struct MoreOfAName : OfStatus {
   using OfStatus::OfStatus;
   using OfStatus::onStage;
   void onStage( Kiv::Name ) override {}
   void onStage( int ) {}
};
struct OfAnyEntity : OfStatus {
   using OfStatus::OfStatus;
   void onParent() override {}
};
struct Writes : Watches< EventConfig::Notifiee, EventConfig > {
   using Watches::Watches;
   void onCritical() override { notifier()->completeIs( true ); }
};
struct Timer : Kiv::Clock::NotifieeConst {
   explicit Timer( double time ) {
      watch( Kiv::activityManager()->clock() );
      timeMinIs( time );
   }
   void onTime() override {}
};
struct OfAMachine : Watches< Stage::StageSm::NotifieeConst, Stage::StageSm const > {
   using Watches::Watches;
   void onTimedOut() override {}
};

// ---- mistaken

#ifdef MISTAKEN

struct Silent : OfStatus {
   using OfStatus::OfStatus;
   void onStages( Kiv::Name ) {}
};
struct OtherKey : OfStatus {
   using OfStatus::OfStatus;
   void onStage( Kiv::String8 ) {}
};
struct ForAKeyByReference : OfStatus {
   using OfStatus::OfStatus;
   void onStage( Kiv::Name const & ) {}
};
struct WithAnArgument : OfEvent {
   using OfEvent::OfEvent;
   void onComplete( bool ) {}
};
struct Constant : OfEvent {
   using OfEvent::OfEvent;
   void onComplete() const {}
};
struct Whole : OfStatus {
   using OfStatus::OfStatus;
   void onStage() override {}
};
struct WholeBesideTheRest : OfStatus {
   using OfStatus::OfStatus;
   using OfStatus::onStage;
   void onStage() override {}
};
struct Deferred : OfStatus {
   using OfStatus::OfStatus;
   void onStagekivImmediate() override {}
};
struct NoReactor : Kiv::PtrInterface {};
#endif

} // namespace

void right( Kiv::Ptr< Status > const & status, Kiv::Ptr< EventConfig > const & event,
            Kiv::Ptr< Stage::StageSm > const & machine ) {
   std::ignore = newReactor< ForAKey >( status );
   std::ignore = newReactor< AllForms >( status );
   std::ignore = newReactor< OneValue >( event );
   std::ignore = newReactor< NotPublic >( status );
   std::ignore = newReactor< ByItsBase >( status );
   std::ignore = newReactor< MoreOfAName >( status );
   std::ignore = newReactor< OfAnyEntity >( status );
   std::ignore = newReactor< Writes >( event );
   std::ignore = newReactor< Timer >( 1.5 );
   Kiv::Ptr< Kiv::PtrInterface > const kept = newReactor< OfAMachine >( machine );
}

#ifdef MISTAKEN
void mistaken( Kiv::Ptr< Status > const & status, Kiv::Ptr< EventConfig > const & event,
               Kiv::Ptr< EventConfig const > const & toRead ) {
   std::ignore = newReactor< Silent >( status );             // refused: overrides no callback
   std::ignore = newReactor< OtherKey >( status );           // refused: another signature
   std::ignore = newReactor< ForAKeyByReference >( status ); // refused: another signature
   std::ignore = newReactor< WithAnArgument >( event );      // refused: another signature
   std::ignore = newReactor< Constant >( event );            // refused: another signature
   std::ignore = newReactor< Whole >( status );              // refused: override on<Attribute>
   std::ignore = newReactor< WholeBesideTheRest >( status ); // refused: override on<Attribute>
   std::ignore = newReactor< Deferred >( status );           // refused: override on<Attribute>
   std::ignore = newReactor< NoReactor >();                  // refused: no reactor: derive it from
   std::ignore = newReactor< ForAKey >( event );             // refused: no matching
   Kiv::Ptr< OneValue >( new OneValue( event ) )
      ->watch( status ); // refused: cannot convert|no viable conversion
   Kiv::Ptr< Writes >( new Writes( event ) )
      ->watch( toRead );                         // refused: cannot convert|no viable conversion
   newReactor< ForAKey >( status );              // refused: nodiscard
   Kiv::Ptr< ForAKey >( new ForAKey( status ) ); // refused: nodiscard
}
#endif
