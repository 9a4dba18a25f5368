// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The registration of this library's types.
#pragma once

namespace Stage::detail {

// Registers the state machines, then keeps a reference to the descriptor of each of their
// attributes, in the order of the tables. Called when the library is loaded, by the initialiser of
// what is built after that; a second call does nothing. Nothing of it is ever destroyed.
void registerTypes();

} // namespace Stage::detail
