// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// One line per attribute of every entity type: its accessors, and values to try. The suite runs
// over all lines; a test of the attribute tables says when a line is missing.
#pragma once

#include "Recorders.h"

#include <Stage/Stage.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace conformance {

// An attribute of an entity type.
class Line {
 public:
   Line( Kiv::KivType const & t, std::string a ) : type( t ), attribute( std::move( a ) ) {}
   virtual ~Line() = default;

   Kiv::KivType const & type;
   std::string const attribute;
   // "StageStatus_timeout"
   std::string name() const;
   // "onTimeout"
   std::string callback() const;
   Kiv::Attribute const & row() const;
   bool notifies() const { return Kiv::has( row().role, Kiv::Role::notifying ); }

   virtual Kiv::Ptr< Kiv::Entity > make() const = 0;
   virtual Kiv::Ptr< Kiv::PtrInterface::NotifieeConst > watch( Kiv::Entity & entity, Trail & trail,
                                                               std::string const & who ) const = 0;
   // One that overrides no callback.
   virtual Kiv::Ptr< Kiv::PtrInterface::NotifieeConst > watchSilently( Kiv::Entity & ) const = 0;
};

// One value. The values to try are numbered; the first is what a new entity has.
class ScalarLine : public Line {
 public:
   using Line::Line;
   virtual std::size_t values() const = 0;
   virtual void set( Kiv::Entity & entity, std::size_t value ) const = 0;
   virtual bool holds( Kiv::Entity const & entity, std::size_t value ) const = 0;
};

// Keyed members. The values to try under each key are numbered.
class KeyedLine : public Line {
 public:
   using Line::Line;
   // All keys that a test may use.
   static std::vector< std::string > const & keys();
   virtual std::size_t values() const = 0;
   virtual void put( Kiv::Entity & entity, std::string const & key, std::size_t value ) const = 0;
   virtual void del( Kiv::Entity & entity, std::string const & key ) const = 0;
   virtual void delAll( Kiv::Entity & entity ) const = 0;
   virtual std::size_t count( Kiv::Entity const & entity ) const = 0;
   virtual bool holds( Kiv::Entity & entity, std::string const & key, std::size_t value ) const = 0;
   // The getter gives null, false.
   virtual bool absent( Kiv::Entity const & entity, std::string const & key ) const = 0;
   // The keys as the iterator gives them, while it calls `change` at each.
   using Change = std::function< void( std::string const & key ) >;
   virtual Trail iterated( Kiv::Entity & entity, Change const & change ) const = 0;
   virtual Trail iteratedConst( Kiv::Entity const & entity, Change const & change ) const = 0;
};

std::vector< std::shared_ptr< ScalarLine > > const & scalarLines();
std::vector< std::shared_ptr< KeyedLine > > const & keyedLines();
// Fixed when the entity is made: the row, and whether a new entity has the value it was made with.
struct FixedLine {
   Kiv::KivType const & type;
   std::string attribute;
   std::function< bool() > holds;
};
std::vector< FixedLine > const & fixedLines();

// How a test prints the line that it is about.
inline void PrintTo( std::shared_ptr< ScalarLine > const & line, std::ostream * out ) {
   *out << line->name();
}
inline void PrintTo( std::shared_ptr< KeyedLine > const & line, std::ostream * out ) {
   *out << line->name();
}

} // namespace conformance
