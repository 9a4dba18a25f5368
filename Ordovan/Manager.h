// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The entry object: makes the state machines, and holds them.
#pragma once

#include <Kiv/Kiv.h>
#include <Ordovan/ConfigSm.h>
#include <Ordovan/Export.h>
#include <Ordovan/StatusSm.h>

namespace Stage {

// Holds one ConfigSm and one StatusSm. Asking again with the same arguments gives the held object;
// with others it is replaced, and the new one starts from what its inputs say now.
//
// Owned by its caller. When it goes it releases `configSm` first, then `statusSm`; each is
// destroyed with its last reference. Errors: the range exception "null ValidPtr" for arguments
// that must not be null; nothing is stored then.
class ORDOVAN_EXPORT Ordovan : public Kiv::Entity {
 public:
   // With both attributes null. Throws the range exception "empty name".
   static Kiv::Ptr< Ordovan > OrdovanIs( Kiv::Name const & name );
   void isNondestructingIs( bool nondestructing ) override;
   Kiv::KivType const & fwkType() const override { return _fwkType(); }
   ~Ordovan() override;
   Kiv::String8 attributeString( Kiv::AttributeId attribute ) const override;

   static Kiv::KivType const & _fwkType();

   // Null until asked for.
   Kiv::Ptr< ConfigSm > configSm() const { return configSm_; }
   // Re-attaches a held ConfigSm to `config`; makes a new one unless the held one has this very
   // status and directory.
   Kiv::Ptr< ConfigSm > configSmIs( Kiv::Ptr< Config const > const & config,
                                    Kiv::Ptr< Status > const & status,
                                    Kiv::Ptr< Kiv::Dir const > const & agentDir );
   // Makes one, with its notifications on, and does not store it.
   Kiv::Ptr< ConfigSm > newConfigSm( Kiv::Ptr< Config const > const & config,
                                     Kiv::Ptr< Status > const & status,
                                     Kiv::Ptr< Kiv::Dir const > const & agentDir );
   void configSmDel() { configSm_ = nullptr; }

   // Null until asked for.
   Kiv::Ptr< StatusSm > statusSm() const { return statusSm_; }
   // Makes a new one unless the held one has this application, by name, and these very objects.
   Kiv::Ptr< StatusSm > statusSmIs( Kiv::String8 const & application,
                                    Kiv::Ptr< Config const > const & config,
                                    Kiv::Ptr< Status > const & status,
                                    Kiv::Ptr< Progress > const & progress,
                                    Kiv::Ptr< Log > const & log );
   // Makes one, with its notifications on, and does not store it.
   Kiv::Ptr< StatusSm > newStatusSm( Kiv::String8 const & application,
                                     Kiv::Ptr< Config const > const & config,
                                     Kiv::Ptr< Status > const & status,
                                     Kiv::Ptr< Progress > const & progress,
                                     Kiv::Ptr< Log > const & log );
   void statusSmDel() { statusSm_ = nullptr; }

 private:
   explicit Ordovan( Kiv::Name const & name );

   Kiv::Ptr< ConfigSm > configSm_;
   Kiv::Ptr< StatusSm > statusSm_;
};

} // namespace Stage
