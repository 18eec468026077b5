// The whole exported interface of the tarvel waveform library, namespace Tarvel.
// Public header; compiles as C++17 and later.
#ifndef TARVEL_TARVEL_H
#define TARVEL_TARVEL_H

#include <tarvel/config.h>
#include <tarvel/events_store.h>
#include <tarvel/sourcer.h>
#include <tarvel/writer.h>
#include <tarvel/raw_reader.h>
#include <tarvel/reader.h>
#include <tarvel/port_mode.h>
#include <tarvel/diagnostics.h>

#endif  // TARVEL_TARVEL_H
