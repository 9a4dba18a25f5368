// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// The way from one object to another through attributes: names with "/" between them, a member of
// a collection by its key in brackets, as in
//
//    statusSm/stageSm[Boot]/pendingEvent[Boot:net]
//    configSm/stageStatus["odd ] key\n"]
//
// A key with brackets, quotes, backslashes, blanks or bytes that are not printable stands between
// double quotes, where \" is a quote, \\ a backslash, \n a line end, and \xNN any byte.

namespace Tools {

// Something is wrong with a path, or it leads nowhere: what() says where, and what there is.
class PathError : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

struct Step {
   std::string name;
   std::optional< std::string > key;
   friend bool operator==( Step const &, Step const & ) = default;
};

// Leading and trailing "/" are allowed; "" and "/" have no steps. Throws PathError.
std::vector< Step > readPath( std::string_view text );

// `text` with a backslash before each character that is in `special`, and \xNN for each byte that
// does not print: when a backslash is one of them, two texts never look the same.
std::string escaped( std::string_view text, std::string_view special );
// As keys are written: between double quotes, or without them when it needs none.
std::string inQuotes( std::string_view text );
std::string bareOrInQuotes( std::string_view text );

// "[key]", quoted when it has to be: what readPath() reads.
std::string bracketed( std::string_view key );
// "name" or "name[key]".
std::string written( Step const & step );

} // namespace Tools
