// What the files of browser tests share: a running host, and a page for each test, which is checked
// and closed at the test's end. Pictures of what a person sees go to console-screenshots in the
// build tree.

import assert from 'node:assert/strict';
import { mkdirSync, writeFileSync } from 'node:fs';
import path from 'node:path';
import { after, before } from 'node:test';

import { closeBrowser, fillAll, newPage, openBrowser, openRequest, result, send, signedIn } from './browser.mjs';
import { build, startHost } from './host.mjs';

export const pictures = path.join(build, 'console-screenshots');

export const KEY = '000102030405060708090a0b0c0d0e0f';
export const GCM = { strCipherAlg: '4', strMode: '6', strKey: { hex: KEY + KEY }, strIV: { hex: '000102030405060708090a0b' } };

// The host of the file's tests, and the page of the test that runs.
export let host = null;
export let page = null;

// Called in a describe(). `faults` are those of the development engine.
export function useHost(options = [], faults = '') {
    before(async () => {
        mkdirSync(pictures, { recursive: true });
        if (faults !== '') process.env.CORVANE_ENGINE_FAULTS = faults;
        host = await startHost(...options);
        delete process.env.CORVANE_ENGINE_FAULTS;
        await openBrowser();
    });
    after(async () => {
        await closeBrowser();
        await host?.stop();
    });
}

// Makes another page the test's.
export async function usePage(opened) {
    page = await opened;
    return page;
}

// A page that is not signed in yet, as newPage() makes it; the test closes it by page.finish().
export function freshPage(options, expectedStatus) {
    return usePage(newPage(host, options, expectedStatus));
}

// A test on a page that is signed in.
export function withPage(options, work, expectedStatus) {
    return async () => {
        await usePage(signedIn(host, options, expectedStatus));
        await work();
        await page.finish();
    };
}

export function onPage(work, expectedStatus) {
    return withPage({}, work, expectedStatus);
}

// Changes what the host answers to a GET, by `change(json)`; before the page is opened.
export function changeAnswers(address, change) {
    return page.route(`**${address}`, async (route) => {
        const answer = await route.fetch();
        const json = await answer.json();
        change(json);
        await route.fulfill({ response: answer, json });
    });
}

// Holds the calls of requests from here on; gives the function that lets them go.
export async function holdRequests(address = '**/v1/requests/*') {
    let release = null;
    const held = new Promise((resolve) => { release = resolve; });
    await page.route(address, async (route) => {
        await held;
        await route.continue().catch(() => {});  // it may be given up
    });
    return release;
}

export function picture(name, fullPage = false) {
    return page.screenshot({ path: path.join(pictures, `${name}.png`), fullPage });
}

export function submit() {
    return page.locator('.form-actions button[type="submit"]').click();
}

export function clipboard() {
    return page.evaluate(() => navigator.clipboard.readText());
}

export function heading(text) {
    return page.waitForFunction((wanted) => document.querySelector('h1')?.textContent === wanted, text);
}

// The code on the card of an error.
export function code() {
    return page.locator('.error-card .code').textContent();
}

export function kind() {
    return page.locator('.answer .error-card').getAttribute('data-kind');
}

// The lines for the shell beside a form: of curl, and of corvane-host.
export function shellLines() {
    return Promise.all(['#curl-line', '#host-line'].map((id) => page.locator(id).textContent()));
}

// Writes a file to choose; gives its path.
export function newFile(name, content) {
    const where = path.join(host.folder, name);
    writeFileSync(where, content);
    return where;
}

// Fills, sends, and gives the result "Data" in a form; the call must succeed.
export async function request(name, values, form = 'base64') {
    await openRequest(page, name);
    await fillAll(page, values);
    await send(page);
    assert.equal(await page.locator('.outcome-head .badge').textContent(), 'Success', name);
    return await page.locator('[data-result="Data"] .value-text').count() > 0 ? result(page, 'Data', form) : '';
}
