// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Text that comes from outside, made fit for a person's eyes.
#pragma once

#include <Kiv/Export.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace Kiv {

// The length in bytes of the well-formed UTF-8 character that `text` begins with; 0 if it begins
// with none (also when `text` is empty).
KIV_EXPORT std::size_t characterLength( std::string_view text );

// `text` with whatever could move a terminal's cursor or change its state (control characters,
// bytes that are no UTF-8, the marks that change the direction of writing) shown as an escape
// like \x1b or \u202e.
KIV_EXPORT std::string printable( std::string_view text );

// `printable` text between double quotes.
KIV_EXPORT std::string quoted( std::string_view text );

} // namespace Kiv
