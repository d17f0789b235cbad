/*
 * The tools' version, as --version prints it: one number for the console, the simulators and
 * the replay, which are built and shipped together with the module.
 */
#ifndef ATCMD_TOOLS_VERSION_H
#define ATCMD_TOOLS_VERSION_H

#define ATCMD_TOOLS_VERSION "1.0.0"

#endif  // ATCMD_TOOLS_VERSION_H
