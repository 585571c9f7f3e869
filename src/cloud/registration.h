// SPDX-License-Identifier: Apache-2.0
// Enrolment with the cloud platform: id, activation, binding, record, reports. No state but the
// settings record and activation_state. Start-up, then the control thread; never two at a time.
#pragma once

// Runs the whole sequence once. 0 when the device record was read, else the first failing code.
// The caller stores the result in activation_state.
[[nodiscard]] int active_device();
