// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Objects that are there from their first use until the process is gone.
#pragma once

#include <cstddef>
#include <new>
#include <utility>

namespace Kiv::detail {

// An object of static lifetime that is never destroyed: what has static lifetime itself may need it
// later than main(). It stands in storage of its own and needs none of the heap: the first use may
// be in a destructor, while the exception that says that memory is short is under way.
//    static Forever< Registry > all;
//    return *all;
template< class T >
class Forever {
 public:
   template< class... Arguments >
   explicit Forever( Arguments &&... arguments )
      : object_( ::new( place_ ) T( std::forward< Arguments >( arguments )... ) ) {}
   Forever( Forever const & ) = delete;
   Forever & operator=( Forever const & ) = delete;

   T & operator*() const { return *object_; }

 private:
   alignas( T ) std::byte place_[ sizeof( T ) ];
   T * object_;
};

} // namespace Kiv::detail
