#include "Program.h"

int main(int argc, char** argv) { return mirel::cli::runProgram(argc, argv); }
