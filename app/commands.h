// The slideshow's one command set, whoever gives the command: a key, a UDP datagram or a
// message of the broker. Texts: "load <path>" shows <path> (everything after the blank, as it
// stands); "next" and "prev" step like Right and Left; "bw 1" and "bw 0" do what B and C do,
// "info 1" and "info 0" show or hide the information line (both written to glimra.ini, as the
// keys do); "rescan" builds the catalogue again; "pause" and "resume" stop and start the
// automatic advance; "display off" and "display on" put the screen to sleep and wake it until
// the schedule's next edge. These words may end in one line end. Keys are turned into the same
// commands, so that each does exactly what its text does.
//
// Commands that wait together are carried out together (RunCommands), and those a later one
// makes pointless are skipped before their work starts, so a burst costs about one command's
// work and the screen ends showing what the last one asked for.
#pragma once

#include <string>
#include <vector>

class RaceManager;

// One command: what to do and its argument.
struct Command {
  enum Kind { NONE, LOAD, NEXT, PREV, BLACK_AND_WHITE, INFO, RESCAN, PAUSE, RESUME, DISPLAY };
  Kind kind = NONE;
  bool on = false;   // BLACK_AND_WHITE, INFO and DISPLAY: on or off
  std::string path;  // LOAD: the path, as it stands
};

// The command a text stands for; NONE for anything else.
Command ParseCommand(const char* text);
// The command a key (the framework's key number) gives: Right and Left step, B and C switch
// black and white on and off, I switches the information line to what `infoShown` is not.
// NONE for every other key (Escape included: it ends the program, which is no command).
Command KeyCommand(int key, bool infoShown);
// Carries out `batch`, commands that came in this order, on the controller `rm`, as one after
// another would end, but skipping work a later command undoes: a load or step followed by
// another load or step is not loaded (a step still goes from where it put the catalogue), a
// rescan after the first is not repeated, only the last "bw", the last "info", the last
// "pause" or "resume" and the last "display" count (written to glimra.ini once, before the one
// picture that is loaded), and the count of the automatic advance starts again once. While the
// display is off, loads and steps only move the catalogue's position; "display on" then shows
// the picture they end on. A stop request ends it
// between commands; false then.
bool RunCommands(const std::vector<Command>& batch, RaceManager* rm);
