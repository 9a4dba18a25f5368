// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Attribute.h>
#include <Kiv/Notifiee.h>
#include <Kiv/Ptr.h>
#include <Kiv/detail/Queue.h>

namespace Kiv {

void PtrInterface::hasNotificationActiveIs( bool active ) { flagIs( notificationActive, active ); }
void PtrInterface::kivAuditErrors( unsigned int ) const {}
void PtrInterface::auditErrors( unsigned int ) const {}
void PtrInterface::isNondestructingIs( bool on ) { flagIs( nondestructing, on ); }
void PtrInterface::zeroReferencesIs( bool zero ) { flagIs( zeroReference, zero ); }
KivType const & PtrInterface::fwkType() const { return _fwkType(); }

KivType const & PtrInterface::_fwkType() {
   static constexpr KivType type( "Kiv::PtrInterface", nullptr, {} );
   return type;
}

void PtrInterface::kivMarkedForDeletionIs( bool marked ) {
   flagIs( markedForDeletion, marked );
   if( marked && flag( isReactor ) )
      detail::queue().drop( static_cast< NotifieeConst & >( *this ) );
}

void PtrInterface::handleZeroRef() { onZeroReferences(); }

void PtrInterface::onZeroReferences() const {
   if( detail::queue().keeps( *this ) )
      return; // until the callback that runs is over
   // Destructors may make and drop references to the object that they destroy: not the last again.
   references_ = 1U << 30;
   auto * const self = const_cast< PtrInterface * >( this );
   self->zeroReferencesIs( true );
   delete self;
}

} // namespace Kiv
