#include "core/startup.h"

int main(int argc, char** argv) { return TavrineMain(argc, argv); }
