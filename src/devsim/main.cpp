#include "devsimcommand.h"

int main(int argc, char **argv) {
    return runDevsim(argc, argv);
}
