// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <startup/Declarations.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace Bench {

namespace {

// About as many layers as there are stages in each.
std::vector< std::uint32_t > inLayerBefore( std::uint32_t stage, std::uint32_t stages,
                                            std::uint32_t many ) {
   auto const width = std::max( many, static_cast< std::uint32_t >( std::sqrt( stages ) ) );
   std::uint32_t const layer = stage / width;
   std::vector< std::uint32_t > all;
   if( layer > 0 )
      for( std::uint32_t i = 0; i != many; ++i )
         all.push_back( ( layer - 1 ) * width + ( stage + i ) % width );
   return all;
}

std::vector< std::uint32_t > allBefore( std::uint32_t stage ) {
   std::vector< std::uint32_t > all;
   for( std::uint32_t i = 0; i != stage; ++i )
      all.push_back( i );
   return all;
}

std::vector< std::uint32_t > dependenciesOf( std::uint32_t stage, Shape shape,
                                             std::uint32_t stages ) {
   switch( shape ) {
   case Shape::chain:
      if( stage > 0 )
         return { stage - 1 };
      break;
   case Shape::layers:
      return inLayerBefore( stage, stages, 4 );
   case Shape::pairs:
      return inLayerBefore( stage, stages, 2 );
   case Shape::fanIn:
      if( stage + 1 == stages )
         return allBefore( stage );
      break;
   case Shape::agents:
      break;
   }
   return {};
}

} // namespace

Shape shapeOf( std::string_view name ) {
   if( name == "chain" )
      return Shape::chain;
   if( name == "layers" )
      return Shape::layers;
   if( name == "pairs" )
      return Shape::pairs;
   if( name == "fan-in" )
      return Shape::fanIn;
   if( name == "agents" )
      return Shape::agents;
   throw std::invalid_argument( "\"" + std::string( name ) +
                                "\" is no shape; expected chain, layers, pairs, fan-in or agents" );
}

Reports reportsOf( std::string_view name ) {
   if( name == "at-once" )
      return Reports::atOnce;
   if( name == "one-by-one" )
      return Reports::oneByOne;
   throw std::invalid_argument( "\"" + std::string( name ) +
                                "\" is no way to report; expected at-once or one-by-one" );
}

Declarations declarations( Shape shape, std::uint32_t events ) {
   bool const oneStage = shape == Shape::agents;
   std::uint32_t const stages = oneStage ? 1 : events;
   std::uint32_t const agents = oneStage ? events : 10;
   Declarations all;
   for( std::uint32_t i = 0; i != agents; ++i )
      all.agent.push_back( "Agent" + std::to_string( i ) );
   for( std::uint32_t i = 0; i != stages; ++i )
      all.stage.push_back( "Stage" + std::to_string( i ) );
   all.event.reserve( events );
   for( std::uint32_t i = 0; i != events; ++i )
      all.event.push_back( { oneStage ? 0 : i, i % agents, dependenciesOf( i, shape, stages ),
                             60.0 + i % 7, i + 1 == events } );
   return all;
}

bool isOrderOf( std::vector< std::uint32_t > const & order, Declarations const & declared ) {
   std::vector< std::uint32_t > place( declared.stage.size(), UINT32_MAX );
   if( order.size() != place.size() )
      return false;
   for( std::uint32_t i = 0; i != order.size(); ++i ) {
      if( order[ i ] >= place.size() || place[ order[ i ] ] != UINT32_MAX )
         return false;
      place[ order[ i ] ] = i;
   }
   return std::all_of( declared.event.begin(), declared.event.end(), [ & ]( auto const & event ) {
      return std::all_of(
         event.dependency.begin(), event.dependency.end(),
         [ & ]( std::uint32_t needed ) { return place[ needed ] < place[ event.stage ]; } );
   } );
}

} // namespace Bench
