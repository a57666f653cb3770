// LibavLog: where the lines of libavcodec and libswscale go.
//
// Their default is the host's stderr. A library must stay silent unless asked,
// so the decoders route every line (at the level libav is set to log) to the
// debug sink instead: silent by default, the host's sink when it set one, and
// stderr only when TQF_DEBUG is set.
//
// libav keeps one log callback per process. Once a decoder has been created
// it is ours, for a host that uses libav itself as well.
#pragma once

// Installs the routing; the first call does it, later calls do nothing.
// Safe from any thread.
void RouteLibavLogToDebugSink();
