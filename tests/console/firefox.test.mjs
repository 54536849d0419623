// The console in Firefox: a handful of facts, of which browsers differ in the making.

import assert from 'node:assert/strict';
import { createRequire } from 'node:module';
import { mkdirSync, readFileSync } from 'node:fs';
import path from 'node:path';
import { after, before, describe, test } from 'node:test';

import { build, startHost } from './host.mjs';
import { startFirefox } from './marionette.mjs';

const axeSource = readFileSync(createRequire(import.meta.url).resolve('axe-core/axe.min.js'), 'utf8');
const pictures = path.join(build, 'console-screenshots');

describe('Firefox', () => {
    let host = null;
    let firefox = null;

    before(async () => {
        mkdirSync(pictures, { recursive: true });
        [host, firefox] = await Promise.all([startHost(), startFirefox()]);
    });
    after(async () => {
        await firefox?.stop();
        await host?.stop();
    });

    const ready = () => firefox.until(() => document.querySelector('.pill[data-state="ok"]') !== null);
    const view = async (address, title) => {
        await firefox.run((to) => { location.hash = to; }, address);
        await firefox.until((wanted) => document.querySelector('h1')?.textContent === wanted, title);
    };
    const press = (selector) => firefox.run((found) => document.querySelector(found).click(), selector);
    const faults = async () => {
        await firefox.load(axeSource);
        return firefox.run(async () => (await window.axe.run(document, {
            runOnly: ['wcag2a', 'wcag2aa', 'wcag21a', 'wcag21aa', 'wcag22aa', 'best-practice'],
        })).violations.map((violation) => `${violation.id}: ${violation.nodes.map((node) => node.target).join(' | ')}`));
    };

    test('the link signs in, and leaves the address', async () => {
        await firefox.open(host.url);
        await ready();
        assert.match(await firefox.run(() => navigator.userAgent), /Firefox/);
        assert.ok(!(await firefox.run(() => location.href)).includes(host.token));
        assert.equal(await firefox.run(() => document.querySelector('.engine .badge').textContent), 'for development, not for production');
        await firefox.screenshot(path.join(pictures, 'firefox-start.png'));
        assert.deepEqual(await faults(), []);
    });

    test('a request is sent from its form', async () => {
        await view('#/request/QZaven_crypto_base64_encode', 'QZaven_crypto_base64_encode');
        await firefox.run(() => {
            const input = document.querySelector('[data-parameter="strIn"] textarea');
            input.value = 'Brücke';
            input.dispatchEvent(new Event('input', { bubbles: true }));
        });
        await press('.form-actions button[type="submit"]');
        await firefox.until(() => document.querySelector('.outcome .badge.ok') !== null);
        assert.match(await firefox.run(() => document.querySelector('[data-result="Data"] .value-text').textContent),
            /^(Brücke|QnLDvGNrZQ==)$/);
        assert.deepEqual(await faults(), []);
    });

    test('the tour of the key exchange goes to its end', async () => {
        await view('#/flow/key-exchange', 'Key exchange');
        await press('main form button[type="submit"]');
        await firefox.until(() => document.querySelector('.flow-verdict .badge') !== null);
        assert.equal(await firefox.run(() => document.querySelector('.flow-verdict').textContent),
            'All steps went well. The text came back.');
        await firefox.screenshot(path.join(pictures, 'firefox-tour.png'));
        assert.deepEqual(await faults(), []);
    });

    test('the search finds what does it', async () => {
        const found = await firefox.run(() => {
            const search = document.querySelector('#search');
            search.value = 'sha-256';
            search.dispatchEvent(new Event('input', { bubbles: true }));
            return [...document.querySelectorAll('nav li a')].filter((link) => link.checkVisibility()).map((link) => link.getAttribute('href'));
        });
        assert.deepEqual(found, ['#/request/QZaven_crypto_hmac', '#/request/QZaven_crypto_kdf']);
    });

    test('a reload keeps the form, and a second tab signs in by itself', async () => {
        await view('#/request/QZaven_crypto_gen_symmkey', 'QZaven_crypto_gen_symmkey');
        await firefox.run(() => {
            const select = document.querySelector('[data-parameter="strCipherAlg"] select');
            select.value = '4';
            select.dispatchEvent(new Event('change', { bubbles: true }));
        });
        await firefox.run(() => { setTimeout(() => location.reload()); });
        await firefox.until(() => performance.getEntriesByType('navigation')[0].type === 'reload');
        await ready();
        assert.equal(await firefox.run(() => document.querySelector('[data-parameter="strCipherAlg"] select').value), '4');
        await firefox.tab(`${host.origin}/#/status`);
        await ready();
        assert.equal(await firefox.run(() => document.querySelector('h1').textContent), 'Status');
        await press('.nav-end button');
        await firefox.until(() => document.querySelector('#token') !== null);
        assert.deepEqual(await firefox.run(() => ({ ...sessionStorage })), {});
        assert.deepEqual(await faults(), []);
    });
});
