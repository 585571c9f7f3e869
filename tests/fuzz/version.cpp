// SPDX-License-Identifier: Apache-2.0
// Version numbers: never negative, and no version is newer than itself or both ways round.
#include "upgrade/app_info.h"
#include "world.h"

void body(fuzz_input& in) {
    app_info here;
    app_info there;
    here.version = heap_text(in.part().c_str());
    there.version = heap_text(in.rest().c_str());
    require(parse_version_number(here.version.get()) >= 0, "a version is not negative");
    require(is_not_newer(&here, &here), "newer than itself");
    require(is_not_newer(&here, &there) || is_not_newer(&there, &here), "newer both ways");
}
