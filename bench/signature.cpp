// SPDX-License-Identifier: Apache-2.0
// signature FILE: the signature of a package, as the install thread computes it.
#include "upgrade/signature.h"

#include <cstdio>

#include "log/tb_log.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: signature FILE\n");
        return 2;
    }
    log_init();
    log_set_output(LOG_TO_NONE);
    char signature[100] = {};
    if (upgrade_signature(argv[1], "1.0.0", signature, sizeof(signature)) != 0) {
        fprintf(stderr, "signature: cannot read %s\n", argv[1]);
        return 1;
    }
    puts(signature);
    return 0;
}
