// What became of a call, in kinds that a person should tell apart at a glance: each has its
// heading, icon and colour.

import { t } from './i18n.js';

const HOST_KINDS = {
    worker_failed: 'crashed',
    worker_timeout: 'slow',
    busy: 'busy',
    draining: 'busy',
    too_many_requests: 'busy',
};

const PAGE_KINDS = { unreachable: 'silent', unreadable: 'garbled', cancelled: 'cancelled' };

// The kind of an error, as the API or this page tells it:
//   refused    plug-in, engine or peer gave a code: it was tried
//   rejected   the host did not take the call: nothing was tried
//   crashed    the process that served it ended
//   slow       it took longer than the host allows
//   busy       the host has no room: nothing was tried
//   silent     no answer
//   garbled    no answer that can be read
//   cancelled  the person no longer waits for the answer
//   unsent     the page did not send it
export function errorKind({ source, code }) {
    if (source === 'host') return HOST_KINDS[code] ?? 'rejected';
    if (source === 'page') return PAGE_KINDS[code] ?? 'unsent';
    return 'refused';
}

// Whether the request may have taken effect though no answer tells.
export function isUncertain(kind) {
    return ['crashed', 'slow', 'silent', 'garbled', 'cancelled'].includes(kind);
}

export const KIND_ICONS = {
    refused: 'cross',
    rejected: 'barred',
    crashed: 'crash',
    slow: 'clock',
    busy: 'queue',
    silent: 'cut',
    garbled: 'info',
    cancelled: 'stop',
    unsent: 'barred',
};

// What stands on the badge.
export function kindText(kind) {
    return {
        refused: t('Refused'),
        rejected: t('Not accepted'),
        crashed: t('Crashed'),
        slow: t('Out of time'),
        busy: t('Busy'),
        silent: t('No answer'),
        garbled: t('Unreadable'),
        cancelled: t('Cancelled'),
        unsent: t('Not sent'),
    }[kind];
}

// What stands over the card.
export function kindHeading(kind, source) {
    const refusers = {
        'plug-in': t('The plug-in refused it'),
        engine: t('The engine refused it'),
        peer: t('The peer refused it'),
    };
    return {
        refused: refusers[source] ?? t('It was refused'),
        rejected: t('The host did not accept the call'),
        crashed: t('The worker process crashed'),
        slow: t('It took too long, and the host ended it'),
        busy: t('The host is busy, and did not begin it'),
        silent: t('There is no answer'),
        garbled: t('The answer is not the host’s'),
        cancelled: t('Cancelled'),
        unsent: t('It was not sent'),
    }[kind];
}
