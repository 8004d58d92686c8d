// Quillfen: the engine's executable. It holds no game logic; the embedded start-up program
// runs the game.
#include "host/startup.h"

int main(int argc, char** argv) { return quillfen::runQuillfen(argc, argv); }
