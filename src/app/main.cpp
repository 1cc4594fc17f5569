#include "app/runsequence.h"

int main(int argc, char** argv) { kdr::runjob(argc, argv); }
