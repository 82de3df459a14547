// aggtree: builds, checks and plans in-network aggregation trees on switched fabrics.
#include "cli/app.h"

int main(int argc, char** argv) {
    return aggtree::cli::Run(argc, argv);
}
