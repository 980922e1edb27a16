#include "core/application.h"

int main(int argc, char** argv) { return postiq::runPostiq(argc, argv); }
