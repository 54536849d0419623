// What the page calls things that the host or the source tree names: data that needs no page, so
// that a test can look whether each has its Chinese text.

// The states of workers in /v1/status.
export const STATES = { idle: 'idle', busy: 'busy', starting: 'starting', leaving: 'being replaced' };

// The limits in /v1/status: [text, unit].
export const LIMITS = {
    body_bytes: ['Largest call', 'bytes'],
    parameter_bytes: ['Largest value in a call', 'bytes'],
    parameters: ['Parameters in one call', ''],
    batch: ['Calls in one batch', ''],
    sessions_per_worker: ['Key-exchange sessions for each worker', ''],
    session_idle_seconds: ['An unused session ends after', 'seconds'],
    request_seconds: ['A request is given up after', 'seconds'],
};

// The documents that the first page names, in the source tree.
export const DOCUMENTS = [
    ['docs/tutorial.md', 'The first ten minutes, from a fresh checkout to a program of your own'],
    ['docs/requests.md', 'Every request with its parameters and results, and every error code'],
    ['docs/serving.md', 'The service: paths, values, limits, security'],
    ['docs/embedding.md', 'The plug-in in a program of your own'],
];

// Where the package corvane-doc installs them.
export const DOCUMENTS_FOLDER = '/usr/share/doc/corvane';

// Where "corvane-host serve" keeps the token unless it was told otherwise, and where the service
// of the package does.
export const TOKEN_FILE = '~/.local/state/corvane-host/token';
export const SERVICE_TOKEN_FILE = '/etc/corvane-host/token';
