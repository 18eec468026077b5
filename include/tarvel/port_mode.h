// The port mode of a signal read from a file: GetSignalPortMode. Public header; compiles as
// C++17 and later.
//
// Semantics. Every declaration line of a file carries its signal's port mode (the PortMode the
// writer's StoreSignal or StoreBus was given), but IRawTarvelRead has no member that answers it;
// this function does, for readers made by CreateRawTarvelRead. Elements of a bus have no
// declaration line of their own and answer kPortNone (show the bus's mode for them); a virtual
// bus answers kPortVirtualBus; files of the oldest layout ("$WAVE") answer kPortSignal.
//
// Costs, failures, threads: one lookup by number, as the reader's by-number queries; nothing is
// printed or thrown; the reader's rule of one thread at a time applies.
#ifndef TARVEL_PORT_MODE_H
#define TARVEL_PORT_MODE_H

#include <tarvel/config.h>
#include <tarvel/raw_reader.h>

namespace Tarvel {

// Sets *mode to the port mode (a PortMode of writer.h) of the signal whose number in the file is
// `signalNr`, and returns true. False, leaving *mode as it was, for an unknown signal, a null
// argument, or a reader that CreateRawTarvelRead did not make.
TARVEL_API bool GetSignalPortMode(IRawTarvelRead* reader, int signalNr, int* mode);

}  // namespace Tarvel

#endif  // TARVEL_PORT_MODE_H
