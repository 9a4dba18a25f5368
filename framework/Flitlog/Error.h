// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Flitlog/Export.h>

#include <stdexcept>

namespace Flitlog {

// A trace file cannot be made or read: what() names the path, what is wrong, what was expected.
class FLITLOG_EXPORT FileError : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
   ~FileError() override;
};

} // namespace Flitlog
