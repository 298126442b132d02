// The vorcore program: the engine that configures a Vorlane panel from a browser.
#include "core/engine.h"

int main(int argc, char** argv) {
    return engine_main(argc, argv);
}
