// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What progression has to say, in order.
#pragma once

#include <Kiv/Kiv.h>
#include <Stage/Export.h>

#include <deque>

namespace Stage {

// One line of the log: a value.
struct LogEntry {
   double time; // seconds, as Kiv::now() was when the entry was made
   Kiv::String8 msg;
};

// A queue of entries. The stage manager appends; a reader elsewhere takes them out. Tells nobody
// of changes, and grows until it is read.
class STAGE_EXPORT Log : public Kiv::Entity {
 public:
   class STAGE_EXPORT NotifieeConst : public Kiv::NotifieeOf< Log, Kiv::Entity::NotifieeConst > {
    public:
      virtual void onIsNondestructing();

      // The names above, for newReactor().
      template< class R, class Form >
      static constexpr bool kivCallbacks[] = {
         ( requires { Form()( &R::onIsNondestructing, &NotifieeConst::onIsNondestructing ); } ),
      };
   };
   class STAGE_EXPORT Notifiee : public Kiv::WritingNotifieeOf< Log, NotifieeConst > {};

   // Throws the range exception "empty name".
   static Kiv::Ptr< Log > LogIs( Kiv::Name const & name );
   ~Log() override;
   void isNondestructingIs( bool nondestructing ) override;

   // Appends a copy of the entry.
   void logEnq( LogEntry const & entry );
   // Takes the oldest entry; false, and `entry` unchanged, when there is none.
   bool logDeq( LogEntry & entry );
   std::size_t logs() const { return log_.size(); }
   // The entry `place` places after the oldest. A range exception when there is none.
   LogEntry const & log( std::size_t place ) const;

   Kiv::KivType const & fwkType() const override;
   static Kiv::KivType const & _fwkType();

 private:
   explicit Log( Kiv::Name const & name );

   std::deque< LogEntry > log_;
};

} // namespace Stage
