// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/Tree.h>

#include <algorithm>
#include <deque>
#include <unordered_map>
#include <utility>
#include <vector>

#include <Kiv/Printable.h>
#include <fmt/format.h>
#include <simulation/Json.h>

namespace Tools {

namespace {

using Kiv::GenericIf;
using Kiv::printable;
using Kiv::quoted;
using Kiv::Role;
using Kiv::Value;
using Kind = Kiv::Value::Kind;

// Paths of the objects, by where they are shown.
using Places = std::unordered_map< Kiv::PtrInterface const *, std::string >;

std::string under( std::string const & path, std::string const & step ) {
   return path.empty() ? step : path + "/" + step;
}

// The rows that can be read, those of the bases last.
std::vector< Kiv::Attribute const * > readable( Kiv::KivType const & type ) {
   std::vector< Kiv::Attribute const * > rows;
   for( auto const * t = &type; t; t = t->base() ) {
      for( auto const & row : t->attributes() )
         if( row.access.read || row.access.member )
            rows.push_back( &row );
   }
   return rows;
}

bool isMembers( Kiv::Attribute const & row ) { return row.access.member != nullptr; }

bool inTree( Kiv::Attribute const & row ) {
   return !has( row.role, Role::framework ) || std::string_view( row.name ) == "fwkKey";
}

// Every attribute of an object that belongs into the tree, with a collection's members one by one:
// call( row, key or null, value ).
template< class Call >
void forEachValue( GenericIf const & object, Call call ) {
   Kiv::String8 const * const noKey = nullptr;
   for( auto const * row : readable( object.type() ) ) {
      if( !inTree( *row ) )
         continue;
      if( !isMembers( *row ) ) {
         call( *row, noKey, object.read( row->name ) );
         continue;
      }
      for( auto i = object.attributeIteratorConst( row->id ); i; ++i ) {
         auto const key = i.key();
         call( *row, &key, i.value() );
      }
   }
}

std::string stepOf( Kiv::Attribute const & row, Kiv::String8 const * key ) {
   return key ? row.name + bracketed( key->view() ) : std::string( row.name );
}

// Breadth first: each object gets the shortest path.
Places placesFrom( Value const & root ) {
   Places places{ { root.object().get(), "" } };
   std::deque< Value > toVisit{ root };
   while( !toVisit.empty() ) {
      GenericIf const object( toVisit.front() );
      toVisit.pop_front();
      std::string const path = places.at( object.instance().get() );
      forEachValue( object, [ & ]( auto const & row, auto const * key, Value const & value ) {
         if( value.is( Kind::object ) &&
             places.emplace( value.object().get(), under( path, stepOf( row, key ) ) ).second )
            toVisit.push_back( value );
      } );
   }
   return places;
}

// ----------------------------------------------------------------------------- the two formats

class Writer {
 public:
   virtual ~Writer() = default;
   // A value, under a label unless that is empty. Labels of members come in brackets.
   virtual void value( std::string const & label, Value const & value ) = 0;
   virtual void reference( std::string const & label, Value const & object,
                           std::string const & place ) = 0;
   virtual void beginObject( std::string const & label, Value const & object ) = 0;
   virtual void beginMembers( std::string const & label, std::size_t count ) = 0;
   // In place of beginMembers(), when they are not shown.
   virtual void members( std::string const & label, std::size_t count,
                         std::string const & place ) = 0;
   virtual void beginMember( Kiv::String8 const & key ) = 0;
   virtual void endMembers() = 0;
   virtual void endObject() { endMembers(); }
   virtual std::string text() const = 0;
};

std::string nameOf( Value const & object ) {
   auto const name = object.toString().str();
   return name == object.object()->fwkType().name() ? std::string() : name;
}

class TextWriter : public Writer {
 public:
   void value( std::string const & label, Value const & value ) override {
      // Alone on its line, a text needs no quotes.
      line( label, label.empty() && depth_ == 0 && value.is( Kind::text )
                      ? escaped( value.text().view(), "\\" )
                      : simple( value ) );
   }
   void reference( std::string const & label, Value const & object,
                   std::string const & place ) override {
      line( label, titled( object ) + ", see " + ( place.empty() ? "/" : place ) );
   }
   void beginObject( std::string const & label, Value const & object ) override {
      line( label, titled( object ) );
      ++depth_;
   }
   void beginMembers( std::string const & label, std::size_t count ) override {
      line( label, counted( count ) );
      ++depth_;
   }
   void members( std::string const & label, std::size_t count,
                 std::string const & place ) override {
      line( label, counted( count ) + ( count == 0 ? "" : ", see " + place ) );
   }
   void beginMember( Kiv::String8 const & key ) override { member_ = bracketed( key.view() ); }
   void endMembers() override { --depth_; }
   std::string text() const override { return text_; }

 private:
   static std::string titled( Value const & object ) {
      auto const name = nameOf( object );
      return object.object()->fwkType().name() +
             ( name.empty() ? std::string() : " " + bareOrInQuotes( name ) );
   }
   static std::string counted( std::size_t members ) {
      return members == 0 ? "none" : fmt::format( "{} member{}", members, members == 1 ? "" : "s" );
   }
   static std::string simple( Value const & value ) {
      if( value.is( Kind::nothing ) )
         return "null";
      if( value.is( Kind::text ) )
         return inQuotes( value.text().view() );
      if( !value.is( Kind::list ) )
         return printable( value.toString().view() );
      std::string parts;
      for( auto const & entry : value.list() ) {
         parts += fmt::format( "{}{} {}", parts.empty() ? "" : ", ", printable( entry.name.view() ),
                               simple( entry.value ) );
      }
      return parts;
   }
   void line( std::string label, std::string const & what ) {
      if( label.empty() )
         label = std::exchange( member_, {} );
      text_.append( 2 * depth_, ' ' );
      text_ += label.empty() ? what : label + ": " + what;
      text_ += '\n';
   }

   std::string text_;
   std::size_t depth_ = 0;
   std::string member_;
};

class JsonWriter : public Writer {
 public:
   void value( std::string const & label, Value const & value ) override {
      labelled( label );
      put( value );
   }
   void reference( std::string const & label, Value const & object,
                   std::string const & place ) override {
      head( label, object );
      json_.member( "see", place.empty() ? "/" : place ).end();
   }
   void beginObject( std::string const & label, Value const & object ) override {
      head( label, object );
      json_.key( "attributes" ).object( Json::Layout::lines );
   }
   void beginMembers( std::string const & label, std::size_t ) override {
      labelled( label );
      json_.object( Json::Layout::lines );
   }
   void members( std::string const & label, std::size_t count, std::string const & ) override {
      labelled( label );
      json_.value( count );
   }
   void beginMember( Kiv::String8 const & key ) override { json_.key( key.view() ); }
   void endMembers() override { json_.end(); }
   void endObject() override { json_.end().end(); }
   std::string text() const override { return json_.text() + '\n'; }

 private:
   using Json = Simulation::Json;

   // A member has its key already, and what was asked for has none.
   void labelled( std::string const & label ) {
      if( !label.empty() )
         json_.key( label );
   }
   void head( std::string const & label, Value const & object ) {
      labelled( label );
      json_.object().member( "type", object.object()->fwkType().name() );
      if( auto const name = nameOf( object ); !name.empty() )
         json_.member( "name", name );
   }
   void put( Value const & value ) {
      switch( value.kind() ) {
      case Kind::nothing:
         json_.null();
         break;
      case Kind::boolean:
         json_.value( value.boolean() );
         break;
      case Kind::number:
         json_.value( value.number() );
         break;
      case Kind::real:
         json_.value( value.real() );
         break;
      case Kind::text:
      case Kind::object:
         json_.value( value.toString().view() );
         break;
      case Kind::list:
         json_.object();
         for( auto const & entry : value.list() ) {
            json_.key( entry.name.view() );
            put( entry.value );
         }
         json_.end();
         break;
      }
   }

   Json json_;
};

// ------------------------------------------------------------------------------------ the tree

class Tree {
 public:
   Tree( Places const & places, Writer & writer, std::size_t depth )
      : places_( places ), writer_( writer ), levelsLeft_( depth ) {}

   // What stands at `path`; an object in full where it is shown, else where that is.
   void put( std::string const & label, Value const & value, std::string const & path ) {
      if( !value.is( Kind::object ) ) {
         writer_.value( label, value );
         return;
      }
      auto const place = places_.find( value.object().get() );
      if( place != places_.end() && place->second != path )
         writer_.reference( label, value, place->second );
      else
         object( label, value, path );
   }

   void object( std::string const & label, Value const & value, std::string const & path ) {
      if( levelsLeft_ == 0 ) {
         writer_.reference( label, value, path );
         return;
      }
      GenericIf const access( value );
      writer_.beginObject( label, value );
      --levelsLeft_;
      for( auto const * row : readable( access.type() ) ) {
         if( !inTree( *row ) )
            continue;
         auto const below = under( path, row->name );
         if( isMembers( *row ) )
            members( row->name, access, *row, below );
         else
            put( row->name, access.read( row->name ), below );
      }
      ++levelsLeft_;
      writer_.endObject();
   }

   void members( std::string const & label, GenericIf const & owner, Kiv::Attribute const & row,
                 std::string const & path ) {
      if( levelsLeft_ == 0 ) {
         writer_.members( label, owner.attributeCount( row.id ), path );
         return;
      }
      writer_.beginMembers( label, owner.attributeCount( row.id ) );
      --levelsLeft_;
      for( auto i = owner.attributeIteratorConst( row.id ); i; ++i ) {
         writer_.beginMember( i.key() );
         put( "", i.value(), path + bracketed( i.key().view() ) );
      }
      ++levelsLeft_;
      writer_.endMembers();
   }

 private:
   Places const & places_;
   Writer & writer_;
   std::size_t levelsLeft_; // to be shown below what is shown now
};

// --------------------------------------------------------------------------------- the way there

std::string joined( std::vector< std::string > const & names ) {
   std::size_t constexpr most = 500;
   std::string text;
   for( std::size_t n = 0; n != std::min( most, names.size() ); ++n )
      text += ( n == 0 ? "" : ", " ) + printable( names[ n ] );
   return names.size() > most ? text + fmt::format( " and {} more", names.size() - most ) : text;
}

std::string keysOf( GenericIf const & owner, Kiv::Attribute const & row ) {
   std::vector< std::string > keys;
   for( auto i = owner.attributeIteratorConst( row.id ); i; ++i )
      keys.push_back( bracketed( i.key().view() ) );
   return keys.empty() ? "it has no members" : "it has " + joined( keys );
}

Kiv::Attribute const & rowFor( GenericIf const & object, std::string const & where,
                               std::string const & name ) {
   auto const * const row = object.type().attribute( name );
   if( row && ( row->access.read || row->access.member ) )
      return *row;
   std::vector< std::string > names;
   for( auto const * other : readable( object.type() ) )
      names.emplace_back( other->name );
   throw PathError( fmt::format( "{} has no {} {}; it has {}",
                                 where.empty() ? std::string( object.type().name() )
                                               : where + ", a " + object.type().name() + ",",
                                 row ? "value under the name" : "attribute", quoted( name ),
                                 names.empty() ? "none" : joined( names ) ) );
}

// What a path leads to: a value, or all members of an attribute of `value`.
struct Target {
   Value value;
   std::string path;
   Kiv::Attribute const * members = nullptr;
};

// The object whose attributes the next step may name.
GenericIf objectAt( Target const & at ) {
   if( at.members ) {
      throw PathError( fmt::format( "{} is a collection, a key in brackets is missing; {}", at.path,
                                    keysOf( GenericIf( at.value ), *at.members ) ) );
   }
   if( at.value.is( Kind::nothing ) )
      throw PathError( fmt::format( "{} is null and leads no further", at.path ) );
   if( !at.value.is( Kind::object ) ) {
      throw PathError( fmt::format( "{} is of type {} and leads no further", at.path,
                                    at.value.typeName().view() ) );
   }
   return GenericIf( at.value );
}

Value memberOf( GenericIf const & owner, Kiv::Attribute const & row, std::string const & path,
                std::string const & key ) {
   if( !isMembers( row ) )
      throw PathError( fmt::format( "{} is no collection and takes no key", path ) );
   for( auto i = owner.attributeIteratorConst( row.id ); i; ++i )
      if( i.key() == std::string_view( key ) )
         return owner.read( row.name, { key } );
   throw PathError(
      fmt::format( "{} has no member {}; {}", path, bracketed( key ), keysOf( owner, row ) ) );
}

Target follow( Value const & root, std::vector< Step > const & steps ) {
   Target at{ root, "" };
   for( auto const & step : steps ) {
      auto const object = objectAt( at );
      auto const & row = rowFor( object, at.path, step.name );
      auto const path = under( at.path, written( step ) );
      if( step.key )
         at = { memberOf( object, row, under( at.path, step.name ), *step.key ), path };
      else if( isMembers( row ) )
         at = { at.value, path, &row };
      else
         at = { object.read( row.name ), path };
   }
   return at;
}

} // namespace

std::string shown( Kiv::Ptr< Kiv::PtrInterface const > const & root, std::string_view path,
                   Format format, std::size_t depth ) {
   auto const target = follow( root, readPath( path ) );
   auto const places = placesFrom( root );
   TextWriter textWriter;
   JsonWriter jsonWriter;
   Writer & writer = format == Format::text ? static_cast< Writer & >( textWriter ) : jsonWriter;
   Tree tree( places, writer, depth );
   // What was asked for is shown in full, also by a path that is not its own.
   auto const place =
      target.value.is( Kind::object ) ? places.find( target.value.object().get() ) : places.end();
   auto const own = place != places.end() ? place->second : target.path;
   if( target.members )
      tree.members( "", GenericIf( target.value ), *target.members,
                    under( own, target.members->name ) );
   else if( target.value.is( Kind::object ) )
      tree.object( "", target.value, own );
   else
      writer.value( "", target.value );
   return writer.text();
}

} // namespace Tools
