// Watches the host's workers and engine, every few seconds while the page is seen.

import { Failure, getStatus } from './api.js';

const PERIOD = 4000;  // milliseconds

let latest = null;
let reachable = true;
let timer = 0;
let listener = () => {};

// {status, reachable}: the last status, null before the first.
export function currentStatus() {
    return { status: latest, reachable };
}

// How many workers can take a request.
export function readyWorkers() {
    return latest?.workers.filter((worker) => worker.state !== 'starting').length ?? 0;
}

// Whether the host's engine is the development engine, which protects nothing in earnest. It says
// so in its version.
export function isForDevelopment(status) {
    return /\bdevelopment engine\b/i.test(status?.engine ?? '');
}

// The largest body that the host takes, in bytes; null if not known.
export function bodyLimit() {
    return latest?.limits?.body_bytes ?? null;
}

async function refreshStatus() {
    try {
        latest = await getStatus();
        reachable = true;
    } catch (failure) {
        if (!(failure instanceof Failure) || failure.status === 401) throw failure;
        reachable = failure.status !== 0;
    }
    listener();
}

function schedule() {
    clearTimeout(timer);
    if (!document.hidden) timer = setTimeout(tick, PERIOD);
}

async function tick() {
    await refreshStatus();
    if (timer !== 0) schedule();
}

function onVisibility() {
    if (document.hidden) clearTimeout(timer);
    else tick();
}

// Calls back after each look at the host.
export function watchStatus(onStatus) {
    listener = onStatus;
    timer = -1;
    document.addEventListener('visibilitychange', onVisibility);
    return tick();
}

export function stopWatching() {
    clearTimeout(timer);
    timer = 0;
    document.removeEventListener('visibilitychange', onVisibility);
}
