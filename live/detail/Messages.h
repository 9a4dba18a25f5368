// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Calls and answers as the calling side writes and reads them.
#pragma once

#include <live/VarlinkClient.h>

#include <optional>
#include <string>
#include <string_view>

namespace Live::detail {

// Throws std::length_error for more than `limit` bytes.
std::string callText( std::string const & method, Json const & parameters, Varlink::Answers answers,
                      std::size_t limit );

// None for what is no answer.
std::optional< Varlink::Reply > replyFrom( std::string_view text, unsigned nesting );

} // namespace Live::detail
