// The page in headless Chromium. Whatever a test does, the page must not report an error, break
// its content security policy, or ask anything of another host: closing a page checks that.

import assert from 'node:assert/strict';
import { createRequire } from 'node:module';
import { readFileSync } from 'node:fs';
import path from 'node:path';
import { chromium } from 'playwright-core';

const axeSource = readFileSync(createRequire(import.meta.url).resolve('axe-core/axe.min.js'), 'utf8');

let browser = null;

export async function openBrowser() {
    browser = await chromium.launch({
        executablePath: process.env.CHROMIUM ?? '/usr/bin/chromium',
        chromiumSandbox: process.getuid() !== 0,
    });
}

export async function closeBrowser() {
    await browser?.close();
}

// A fresh page, not signed in yet. `expectedStatus` lists HTTP failures that the test provokes:
// the browser reports each.
export async function newPage(host, options = {}, expectedStatus = []) {
    const context = await browser.newContext({
        viewport: { width: 1360, height: 900 },
        locale: 'en-GB',
        permissions: ['clipboard-read', 'clipboard-write'],
        acceptDownloads: true,
        reducedMotion: 'reduce',
        ...options,
    });
    const page = await context.newPage();
    const complaints = [];
    const expected = (text) => expectedStatus.some((status) => (status === 0
        ? text.includes('net::ERR_')
        : text.includes(`responded with a status of ${status}`)));
    page.on('console', (message) => {
        if (['error', 'warning'].includes(message.type()) && !expected(message.text()))
            complaints.push(`${message.type()}: ${message.text()}`);
    });
    page.on('pageerror', (error) => complaints.push(`exception: ${error.stack}`));
    page.on('request', (request) => {
        const url = request.url();
        if (!url.startsWith(`${host.origin}/`) && !/^(data|blob):/.test(url))
            complaints.push(`request to ${url}`);
    });
    await page.addInitScript(() => {
        document.addEventListener('securitypolicyviolation', (event) =>
            console.error(`policy: ${event.violatedDirective} ${event.blockedURI}`));
    });
    page.finish = async () => {
        await context.close();
        assert.deepEqual(complaints, []);
    };
    return page;
}

// A page that is signed in by the address that the host prints.
export async function signedIn(host, options, expectedStatus) {
    const page = await newPage(host, options, expectedStatus);
    await page.goto(host.url);
    await page.waitForSelector('.pill[data-state="ok"]');
    return page;
}

export async function openRequest(page, name) {
    await page.evaluate((address) => { location.hash = address; }, `#/request/${name}`);
    await page.waitForFunction((text) => document.querySelector('h1')?.textContent === text, name);
}

export async function openView(page, address) {
    await page.evaluate((to) => { location.hash = to; }, address);
    await page.waitForFunction((to) => location.hash === to && document.querySelector('h1'), address);
}

export function field(page, parameter) {
    return page.locator(`[data-parameter="${parameter}"]`);
}

// Chooses one of the ways of a field or result, where there is a choice and it is another one.
async function chooseWay(where, value) {
    const label = await where.evaluate((element, wanted) => {
        const radio = [...element.querySelectorAll('.segments input')].find((input) => input.value === wanted);
        return radio && !radio.checked ? radio.id : '';
    }, value);
    if (label !== '') await where.locator(`label[for="${label}"]`).click();
}

// Fills a field as a person does. A value is a text, or {hex}, {base64} or {file}; a text goes
// into whatever the field is, after "Text" was chosen where there is a choice.
export async function fill(page, parameter, value) {
    const where = field(page, parameter);
    const how = typeof value === 'string' ? 'text' : Object.keys(value)[0];
    await chooseWay(where, how);
    const control = where.locator('.control > select, .control > textarea, .control > input');
    if (how === 'file') {
        await control.setInputFiles(value.file);
        await where.getByText(path.basename(value.file), { exact: true }).waitFor();
    } else if (await control.evaluate((element) => element.tagName) === 'SELECT') await control.selectOption(value);
    else await control.fill(typeof value === 'string' ? value : value[how]);
}

export async function fillAll(page, values) {
    for (const [parameter, value] of Object.entries(values)) await fill(page, parameter, value);
}

// Sends the form, also with what it warns of, and waits for the answer to this very call.
export async function send(page) {
    const answered = page.waitForResponse((response) => response.url().includes('/v1/requests/'));
    await page.locator('.form-actions button[type="submit"]').click();
    const anyway = page.locator('.attention button');
    if (await anyway.isVisible()) await anyway.click();
    await answered;
    await page.waitForSelector('.outcome');
    await page.waitForFunction(() => !document.querySelector('[aria-busy]'));
}

// A result's text as Text, Hex or Base64.
export async function result(page, name, form) {
    const where = page.locator(`[data-result="${name}"]`);
    await chooseWay(where, form);
    return where.locator('.value-text').textContent();
}

export async function runFlow(page) {
    await page.locator('main form button[type="submit"]').click();
    await page.waitForSelector('.flow-verdict .badge');
    return page.locator('.flow-verdict').textContent();
}

const EVERYTHING = ['wcag2a', 'wcag2aa', 'wcag21a', 'wcag21aa', 'wcag22aa', 'best-practice'];

// What axe-core finds wrong with the page as it is, by the rules of WCAG 2.2 A and AA. With
// `coloursAlone` that of the rules which a colour scheme can break: for views that are looked at
// in another scheme as a whole.
export async function accessibilityFaults(page, coloursAlone = false) {
    if (!await page.evaluate(() => 'axe' in window)) await page.evaluate(axeSource);
    const found = await page.evaluate((runOnly) => window.axe.run(document, {
        runOnly, resultTypes: ['violations'], preload: false,
    }), coloursAlone ? { type: 'rule', values: ['color-contrast', 'link-in-text-block'] } : EVERYTHING);
    return found.violations.map((violation) =>
        `${violation.id}: ${violation.nodes.map((node) => `${node.target} ${node.failureSummary}`).join(' | ')}`);
}
