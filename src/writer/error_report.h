// The error reporter through which every layer of the writer hands over its failures. Writer
// layer. An implementation belongs to one writer and is used from that writer's thread only.
#ifndef TARVEL_WRITER_ERROR_REPORT_H
#define TARVEL_WRITER_ERROR_REPORT_H

namespace Tarvel {

// Receives a failure as a printf-style message and always answers false, so that a failing
// operation can end with `return reporter.Error(...)`.
//
// The writer's implementation: on the first failure it closes the output stream (which gives up
// the stream's buffer, see KOutputStream::Close) and writes the message to "<file>.log"; later
// calls find no stream and log nothing. An empty message logs nothing (callers that already
// reported pass "" on their way out). Implementations may call back into the KOutputStream that
// reported; the stream is in a consistent state during the call.
class IErrorReport {
public:
    virtual bool Error(const char* format, ...) = 0;

protected:
    ~IErrorReport() = default;
};

}  // namespace Tarvel

#endif  // TARVEL_WRITER_ERROR_REPORT_H
