// Who the host process is, as far as it is known without waiting.
#pragma once

/// Captures the host's executable, process id and user, decides whether it is one of the product's own
/// processes, and starts the collection of what takes longer. Called with GlobalLock held, at every start-up.
void CaptureHostProcess();
