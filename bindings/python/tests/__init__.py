# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
