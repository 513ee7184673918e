#include "application.h"

int main(int argc, char **argv) {
    return runTeranoCounter(argc, argv);
}
