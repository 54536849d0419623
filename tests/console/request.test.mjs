// The form of a request and its answer in a browser: files, lengths, waiting, failures, views.

import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import crypto from 'node:crypto';
import { mkdirSync, readFileSync, writeFileSync } from 'node:fs';
import path from 'node:path';
import { after, before, describe, test } from 'node:test';

import { errorKind } from '../../devkit/console/outcomes.js';
import { sampleRsa } from '../../devkit/console/samples.js';
import { accessibilityFaults, closeBrowser, field, fill, fillAll, newPage, openBrowser, openRequest, result, send,
    signedIn } from './browser.mjs';
import { build, getJson, runLine, startHost } from './host.mjs';

const pictures = path.join(build, 'console-screenshots');
const KEY = '000102030405060708090a0b0c0d0e0f';
const SIZES = { desktop: { width: 1440, height: 900 }, laptop: { width: 1024, height: 768 },
    tablet: { width: 768, height: 1024 }, phone: { width: 390, height: 844 } };
const GCM = { strCipherAlg: '4', strMode: '6', strKey: { hex: KEY + KEY }, strIV: { hex: '000102030405060708090a0b' } };

describe('Request', () => {
    let host = null;
    let page = null;

    before(async () => {
        mkdirSync(pictures, { recursive: true });
        // Faults on request: the CMAC ends its worker, white-box SM4 hangs.
        process.env.CORVANE_ENGINE_FAULTS = 'aven_crypto_cmac:*=crash;aven_wbsm4_encrypt:*=hang';
        host = await startHost('--request-seconds', '3');
        delete process.env.CORVANE_ENGINE_FAULTS;
        await openBrowser();
    });
    after(async () => {
        await closeBrowser();
        await host.stop();
    });

    const withPage = (options, work, expectedStatus) => async () => {
        page = await signedIn(host, options, expectedStatus);
        await work();
        await page.finish();
    };
    const onPage = (work, expectedStatus) => withPage({}, work, expectedStatus);
    const picture = (name) => page.screenshot({ path: path.join(pictures, `${name}.png`) });
    const submit = () => page.locator('.form-actions button[type="submit"]').click();
    const newFile = (name, content) => {
        const where = path.join(host.folder, name);
        writeFileSync(where, content);
        return where;
    };
    const clipboard = () => page.evaluate(() => navigator.clipboard.readText());
    const kind = () => page.locator('.answer .error-card').getAttribute('data-kind');
    const code = () => page.locator('.answer .error-card .code').textContent();
    const lines = () => Promise.all(['#curl-line', '#host-line'].map((id) => page.locator(id).textContent()));
    const ask = async (name, parameters) => (await fetch(`${host.origin}/v1/requests/${name}`, { method: 'POST',
        headers: { Authorization: `Bearer ${host.token}`, 'Content-Type': 'application/json' },
        body: JSON.stringify(parameters) })).json();

    // --- Files.

    test('A file of 13 MB is sent from the disk, and its HMAC is that of openssl', async () => {
        page = await newPage(host);
        // Whatever reads a file into the page's memory is noted.
        await page.addInitScript(() => {
            window.readBytes = 0;
            for (const name of ['arrayBuffer', 'text', 'bytes', 'stream']) {
                const read = Blob.prototype[name];
                Blob.prototype[name] = function readNoted(...values) {
                    window.readBytes += this.size;
                    return read.apply(this, values);
                };
            }
            window.FileReader = null;
        });
        await page.goto(host.url);
        await page.waitForSelector('.pill[data-state="ok"]');
        const large = newFile('large.bin', crypto.randomBytes(13 << 20));
        await openRequest(page, 'QZaven_crypto_hmac');
        await fillAll(page, { strHashAlg: '4', strKey: { hex: KEY }, strdata: { file: large } });
        assert.equal(await field(page, 'strdata').locator('.size').textContent(), '13 MiB (13,631,488 bytes)');
        const shown = await lines();
        const sent = page.waitForRequest('**/v1/requests/*');
        await send(page);
        assert.match((await sent).headers()['content-type'], /^multipart\/form-data; boundary=/);
        const [due] = execFileSync('openssl', ['dgst', '-sha256', '-mac', 'HMAC', '-macopt', `hexkey:${KEY}`, '-r', large])
            .toString().split(' ');
        assert.equal(await result(page, 'Data', 'hex'), due);
        assert.ok(await page.evaluate(() => window.readBytes) <= 1);
        const [curl, call] = await Promise.all(shown.map((line) => runLine(line, host)));
        for (const answer of [JSON.parse(curl).results, JSON.parse(call)])
            assert.equal(Buffer.from(answer.Data, 'base64url').toString('hex'), due);
        await page.finish();
    });

    test('Beside a file every value stays what it is', onPage(async () => {
        const bytes = crypto.randomBytes(1000);
        const aad = ' a\nb "c" %41+\\ 桥';
        await openRequest(page, 'QZaven_crypto_encrypt');
        await fillAll(page, { ...GCM, straad: aad, strdata: { file: newFile('data.bin', bytes) } });
        const [curl] = await lines();
        await send(page);
        const cipher = crypto.createCipheriv('aes-256-gcm', Buffer.from(KEY + KEY, 'hex'), Buffer.from(GCM.strIV.hex, 'hex'));
        cipher.setAAD(Buffer.from(aad));
        const due = Buffer.concat([cipher.update(bytes), cipher.final()]);
        assert.equal(await result(page, 'Data', 'hex'), due.toString('hex'));
        assert.equal(await result(page, 'gcmOutTag', 'hex'), cipher.getAuthTag().toString('hex'));
        assert.equal(JSON.parse(await runLine(curl, host)).results.gcmOutTag,
            await result(page, 'gcmOutTag', 'base64'));

        // Bytes that are no text, beside a file.
        await openRequest(page, 'QZaven_crypto_envelope_encrypt');
        await fillAll(page, { strdata: { hex: 'ff000d0a' }, strCipherAlg: '4', strMode: '2',
            strpk: { file: newFile('cert.der', Buffer.from(sampleRsa.certificate, 'base64')) } });
        const [own] = await lines();
        await send(page);
        const envelopes = [await result(page, 'Data', 'base64'), JSON.parse(await runLine(own, host)).results.Data];
        for (const strEncdata of envelopes) {
            const { results } = await ask('QZaven_crypto_envelope_decrypt',
                { strEncdata, strKeyPairType: 3, strsk: sampleRsa.privateKey, strCipherAlg: 4, strMode: 2 });
            assert.equal(results.Data, '%25FF%2500%250D%250A');
        }
    }));

    test('Beside a value that is no Base64 a file goes as Base64, and both arrive', onPage(async () => {
        await openRequest(page, 'QZaven_crypto_hmac');
        await fillAll(page, { strHashAlg: '4', strKey: { base64: 'A%' }, strdata: { file: newFile('data.bin', 'abc') } });
        const sent = page.waitForRequest('**/v1/requests/*');
        await send(page);
        assert.deepEqual(JSON.parse((await sent).postData()),
            { strHashAlg: '4', strKey: { raw: 'A%' }, strdata: { base64: 'YWJj' } });
    }));

    test('What is too large for the host is said before, and not sent', onPage(async () => {
        const excess = page.locator('.form-actions > .problem');
        await openRequest(page, 'QZaven_crypto_hmac');
        await fillAll(page, { strHashAlg: '4', strKey: { hex: KEY }, strdata: { file: newFile('17.bin', Buffer.alloc(17 << 20)) } });
        assert.match(await excess.textContent(), /^Too large: this call has 17 MiB, and the host takes 16 MiB/);
        let asked = 0;
        page.on('request', (request) => { asked += request.url().includes('/v1/requests/') ? 1 : 0; });
        await submit();
        assert.equal(await kind(), 'unsent');
        assert.match(await page.locator('.answer .error-card').textContent(), /too_large.*Choose a smaller file.*--body-bytes/);
        await picture('too-large');

        // As Base64 it is larger.
        await fill(page, 'strdata', { file: newFile('13.bin', Buffer.alloc(13 << 20)) });
        assert.equal(await excess.textContent(), '');
        await fill(page, 'strKey', { base64: 'A%' });
        assert.match(await excess.textContent(), /this call has 17\.3 MiB/);
        await submit();
        await page.locator('.attention button').click();
        assert.match(await page.locator('.answer .error-card').textContent(), /is sent as Base64, which is a third longer/);
        assert.equal(asked, 0);
    }));

    test('A chosen file is shown, kept over a look elsewhere, changed and removed', onPage(async () => {
        await openRequest(page, 'QZaven_crypto_base64_encode');
        await fill(page, 'strIn', { file: newFile('one.bin', 'one') });
        const where = field(page, 'strIn');
        const input = where.locator('input[type="file"]');
        const chosen = () => input.evaluate((element) => [...element.files].map((file) => file.name));
        assert.deepEqual(await chosen(), ['one.bin']);
        assert.equal(await where.locator('.file-name').textContent(), 'one.bin');
        assert.equal(await where.locator('.size').textContent(), '3 bytes');
        await openRequest(page, 'QZaVen_GetVersion');
        await openRequest(page, 'QZaven_crypto_base64_encode');
        assert.deepEqual(await chosen(), ['one.bin']);
        await fill(page, 'strIn', { file: newFile('other.bin', 'other') });
        assert.deepEqual(await chosen(), ['other.bin']);
        await send(page);
        assert.equal(await result(page, 'Data', 'text'), 'other');
        await where.getByRole('button', { name: 'Remove other.bin' }).click();
        assert.deepEqual(await chosen(), []);
        assert.equal(await where.locator('.file-name').count(), 0);
        assert.equal(await input.evaluate((element) => document.activeElement === element), true);
        assert.doesNotMatch(await page.locator('#host-line').textContent(), /strIn/);
        await fill(page, 'strIn', { file: path.join(host.folder, 'one.bin') });
        await send(page);
        assert.equal(await result(page, 'Data', 'text'), 'one');
    }));

    test('A file that changed after it was chosen is said to be unreadable', onPage(async () => {
        await openRequest(page, 'QZaven_crypto_base64_encode');
        const name = newFile('changing.bin', 'before');
        await fill(page, 'strIn', { file: name });
        writeFileSync(name, 'and after');
        await submit();
        await page.waitForSelector('.answer .error-card');
        assert.equal(await code(), 'unreadable_file');
        assert.match(await page.locator('.answer .error-card').textContent(), /Choose the file again/);
    }));

    // --- Lengths and names.

    test('The right length is said and offered, and follows cipher and mode', onPage(async () => {
        await openRequest(page, 'QZaven_crypto_encrypt');
        const size = (parameter) => field(page, parameter).locator('.size').textContent();
        const problem = (parameter) => field(page, parameter).locator('.problem').textContent();
        const chips = (parameter) => field(page, parameter).locator('.chip').allTextContents();
        // Nothing is known yet.
        assert.deepEqual(await chips('strKey'), ['12', '16', '24', '32']);
        await fill(page, 'strCipherAlg', '4');
        assert.deepEqual([await size('strKey'), await chips('strKey')], ['32 bytes needed', ['Random: 32 bytes']]);
        await fill(page, 'strKey', { hex: KEY });
        assert.deepEqual([await size('strKey'), await problem('strKey')], ['16 bytes', '32 bytes needed, 16 given.']);
        await field(page, 'strKey').locator('.chip').click();
        assert.match(await field(page, 'strKey').locator('textarea').inputValue(), /^[0-9a-f]{64}$/);
        assert.equal(await problem('strKey'), '');
        assert.equal(await page.evaluate(() => document.activeElement.textContent), 'Random: 32 bytes');

        await fill(page, 'strMode', '2');
        assert.deepEqual([await size('strIV'), await chips('strIV')], ['16 bytes needed', ['Random: 16 bytes']]);
        await fill(page, 'strMode', '6');
        assert.deepEqual([await size('strIV'), await chips('strIV')],
            ['1 to 128 bytes needed, usually 12', ['Random: 12 bytes']]);
        const { requests } = await getJson(host, '/v1/catalogue');
        const triple = requests.find(({ name }) => name === 'QZaven_crypto_encrypt').parameters[0].choices
            .find(({ text }) => text === '3DES').value;
        await fillAll(page, { strCipherAlg: triple, strMode: '2' });
        assert.equal(await problem('strKey'), '24 bytes needed, 32 given.');
        assert.deepEqual(await chips('strIV'), ['Random: 8 bytes']);
        await picture('lengths');
        // The host is asked all the same, if the person wants to.
        await fillAll(page, { strIV: { hex: '00' }, strdata: 'x' });
        await send(page);
        assert.equal(await code(), '-30040');
    }));

    test('Choices are read by their names', onPage(async () => {
        await openRequest(page, 'QZaven_crypto_encrypt');
        const options = (parameter) => field(page, parameter).locator('option').allTextContents();
        assert.ok((await options('strCipherAlg')).includes('AES-256 (4)'));
        assert.ok((await options('strMode')).includes('GCM (6)'));
        assert.equal((await options('strCipherPadding'))[0], 'Not given: none (0)');
        await fill(page, 'strMode', '1');
        assert.equal(await field(page, 'strIV').locator('.unused').textContent(), 'Not used with ECB.');
        assert.equal(await field(page, 'straad').locator('.unused').textContent(), 'Used with GCM only.');
    }));

    test('Without names of the catalogue the form works by numbers', async () => {
        page = await newPage(host);
        await page.route('**/v1/catalogue', async (route) => {
            const answer = await route.fetch();
            const json = await answer.json();
            for (const request of json.requests)
                for (const parameter of request.parameters) {
                    delete parameter.choices;
                    delete parameter.length;
                }
            await route.fulfill({ response: answer, json });
        });
        await page.goto(host.url);
        await page.waitForSelector('.pill[data-state="ok"]');
        await openRequest(page, 'QZaven_crypto_encrypt');
        assert.deepEqual(await field(page, 'strKey').locator('.chip').allTextContents(), ['12', '16', '24', '32']);
        await fillAll(page, { ...GCM, straad: 'x', strdata: 'a text' });
        await send(page);
        assert.equal(await page.locator('.outcome .badge').textContent(), 'Success');
        await page.finish();
    });

    // --- Sending, and waiting for it.

    for (const [name, viewport] of Object.entries(SIZES))
        test(`Send stays in reach and covers no field: ${name}`, withPage({ viewport }, async () => {
            await openRequest(page, 'QZaven_crypto_encrypt');
            await fillAll(page, { ...GCM, straad: 'header', strdata: 'first line\n'.repeat(12) });
            const key = await field(page, 'strKey').locator('textarea').evaluate((area) =>
                [area.scrollHeight - area.clientHeight, area.scrollWidth - area.clientWidth]);
            assert.deepEqual(key.map((pixels) => pixels <= 0), [true, true], 'a key of 32 bytes is seen whole');
            for (const part of [0, 0.3, 0.6, 1]) {
                await page.evaluate((to) => window.scrollTo(0, to * document.body.scrollHeight), part);
                // On wide screens the form may have been scrolled away; on others it never leaves.
                const seen = await page.locator('.form-actions button[type="submit"]').evaluate((button) => {
                    const box = button.getBoundingClientRect();
                    const on = document.elementFromPoint(box.x + box.width / 2, box.y + box.height / 2);
                    return box.top >= 0 && box.bottom <= window.innerHeight && button.contains(on);
                });
                assert.ok(seen, `${name} ${part}`);
            }
            await page.evaluate(() => window.scrollTo(0, 0));
            await field(page, 'strCipherAlg').locator('select').focus();
            for (let i = 0; i < 45; ++i) {
                const covered = await page.evaluate(() => {
                    const at = document.activeElement;
                    const bar = document.querySelector('.form-actions');
                    if (!at.closest('.fields') || at.classList.contains('visually-hidden')) return '';
                    const box = at.getBoundingClientRect();
                    const { top } = bar.getBoundingClientRect();
                    return box.bottom > top + 1 ? `${at.id} ${box.bottom} ${top}` : '';
                });
                assert.equal(covered, '');
                await page.keyboard.press('Tab');
            }
            await send(page);
            await page.screenshot({ path: path.join(pictures, `send-${name}.png`) });
        }));

    test('Waiting shows, with its time, and can be given up', onPage(async () => {
        await openRequest(page, 'QZaven_crypto_base64_encode');
        await fill(page, 'strIn', 'one');
        await send(page);
        let release = null;
        let held = new Promise((resolve) => { release = resolve; });
        await page.route('**/v1/requests/*', async (route) => {
            await held;
            await route.continue().catch(() => {});  // it may be given up
        });
        const cancel = page.getByRole('button', { name: 'Cancel' });
        assert.equal(await cancel.isVisible(), false);
        await submit();
        await page.waitForSelector('.waiting');
        // The answer that is due takes the place of the one before.
        assert.equal(await page.locator('.answer .outcome').count(), 0);
        assert.match(await page.locator('.waiting').textContent(), /Waiting for the answer: \d+ s.*gives a request up after 3 seconds/);
        await page.waitForFunction(() => document.querySelector('.waiting-time').textContent === '1 s');
        assert.equal(await page.locator('.form-actions .primary').textContent(), 'Waiting… 1 s');
        assert.deepEqual(await accessibilityFaults(page), []);
        await picture('waiting');
        // It is still so after a look elsewhere.
        await openRequest(page, 'QZaVen_GetVersion');
        assert.equal(await page.locator('.waiting').count(), 0);
        assert.equal(await cancel.isVisible(), false);
        await openRequest(page, 'QZaven_crypto_base64_encode');
        await page.waitForSelector('.waiting');
        await cancel.focus();
        await page.keyboard.press('Enter');
        await page.waitForSelector('.answer .error-card');
        assert.equal(await kind(), 'cancelled');
        const card = await page.locator('.answer .error-card').textContent();
        assert.match(card, /may have carried the request out all the same/);
        assert.match(card, /If it is sent again.*it may be sent again, to any worker or host/);
        assert.equal(await cancel.isVisible(), false);
        assert.equal(await page.evaluate(() => document.activeElement.textContent), 'Send');
        await picture('cancelled');
        release();

        // The next call is one like any other, and what comes for it finds the view that is open.
        held = new Promise((resolve) => { release = resolve; });
        await submit();
        await page.waitForSelector('.waiting');
        await openRequest(page, 'QZaVen_GetVersion');
        await openRequest(page, 'QZaven_crypto_base64_encode');
        release();
        await page.waitForSelector('.answer [data-result="Data"]');
        assert.equal(await page.locator('.answer .error-card').count(), 0);
        assert.equal(await page.locator('.form-actions .primary').textContent(), 'Send');
    }));

    for (const colorScheme of ['light', 'dark'])
        test(`Each kind of failure looks and reads differently, ${colorScheme}`, withPage({ colorScheme }, async () => {
            const looks = [];
            const failure = async (due, name, values) => {
                await openRequest(page, name);
                await fillAll(page, values);
                await submit();
                if (await page.locator('.attention button').isVisible()) await page.locator('.attention button').click();
                await page.waitForSelector('.answer .error-card');
                await page.waitForFunction(() => !document.querySelector('[aria-busy]'));
                const card = page.locator('.answer .error-card');
                assert.equal(await kind(), due);
                assert.ok((await card.locator('dt').allTextContents()).includes('What to do'), due);
                assert.deepEqual(await accessibilityFaults(page, colorScheme === 'dark'), [], due);
                await picture(`${colorScheme}-failure-${due}`);
                looks.push(await card.evaluate((element) => {
                    const heading = element.querySelector('h3');
                    return {
                        text: heading.textContent,
                        badge: document.querySelector('.outcome-head .badge').textContent,
                        icon: heading.querySelector('path').getAttribute('d'),
                        colour: getComputedStyle(heading).color + getComputedStyle(element).borderLeftStyle,
                    };
                }));
                return card.textContent();
            };
            const key = { strKey: { hex: KEY }, strdata: 'x' };
            assert.match(await failure('crashed', 'QZaven_crypto_cmac', { strCipherAlg: '2', ...key }),
                /worker_failed.*If it is sent again/);
            assert.match(await failure('slow', 'QZaven_wbsm4_encrypt', { ...key, strIV: { hex: KEY } }),
                /worker_timeout.*--request-seconds.*If it is sent again/);
            const refused = await failure('refused', 'QZaven_crypto_hmac', key);
            assert.match(refused, /The plug-in refused it/);
            assert.doesNotMatch(refused, /If it is sent again/);
            assert.match(await failure('rejected', 'QZaven_ke_free', { strKe: 'ke_of_another_day' }), /session_gone/);
            await page.route('**/v1/requests/*', (route) => route.fulfill({ status: 503, json: { results: {}, warnings: [], error: {
                code: 'busy', source: 'host', text: 'the host is full', cause: 'too much at once', remedy: 'wait' } } }));
            assert.doesNotMatch(await failure('busy', 'QZaVen_GetVersion', {}), /If it is sent again/);
            await page.unroute('**/v1/requests/*');
            await page.route('**/v1/requests/*', (route) => route.abort());
            assert.match(await failure('silent', 'QZaven_crypto_base64_encode', { strIn: 'x' }), /unreachable.*If it is sent again/);
            for (const what of ['text', 'badge', 'icon', 'colour'])
                assert.equal(new Set(looks.map((look) => look[what])).size, looks.length, `${what}: ${looks.map((look) => look[what])}`);
        }, [502, 504, 410, 503, 0]));

    test('Each code of the host is of the kind that its status means', async () => {
        const { hostCodes } = await getJson(host, '/v1/catalogue');
        const byStatus = { 429: 'busy', 502: 'crashed', 503: 'busy', 504: 'slow' };
        for (const { code: name, status } of hostCodes)
            assert.equal(errorKind({ source: 'host', code: name }), byStatus[status] ?? 'rejected', name);
    });

    // --- Answers.

    for (const colorScheme of ['light', 'dark'])
        test(`An answer to former values is grey and can be read, ${colorScheme}`, withPage({ colorScheme }, async () => {
            await openRequest(page, 'QZaven_crypto_gen_symmkey');
            await fill(page, 'strCipherAlg', '4');
            await send(page);
            const look = () => page.locator('.value-text').evaluate((element) =>
                [getComputedStyle(element).color, getComputedStyle(element.closest('.answer')).backgroundColor]);
            const fresh = await look();
            await fill(page, 'strCipherAlg', '2');
            const former = await look();
            assert.ok(former.every((colour, i) => colour !== fresh[i]));
            assert.match(await page.locator('.answer').textContent(), /^The form has changed since/);
            assert.deepEqual(await accessibilityFaults(page, colorScheme === 'dark'), []);
            await picture(`${colorScheme}-former`);
            await send(page);
            assert.deepEqual(await look(), fresh);
            assert.equal(await page.locator('.answer .outcome').count(), 1);
            // A failure too.
            await page.route('**/v1/requests/*', (route) => route.abort());
            await submit();
            await page.waitForSelector('.answer .error-card');
            assert.equal(await page.locator('.answer [data-result]').count(), 0);
            await fill(page, 'strCipherAlg', '4');
            assert.deepEqual(await accessibilityFaults(page, colorScheme === 'dark'), []);
        }, [0]));

    test('A download is what is shown, and the bytes are one too', onPage(async () => {
        await openRequest(page, 'QZaven_crypto_base64_encode');
        await fill(page, 'strIn', { hex: 'fbffbf0a' });
        await send(page);
        const save = async (text) => {
            const download = page.waitForEvent('download');
            await page.locator('[data-result="Data"]').getByRole('button', { name: text }).click();
            const saved = await download;
            return [saved.suggestedFilename(), readFileSync(await saved.path()).toString('latin1')];
        };
        const name = 'QZaven_crypto_base64_encode-Data';
        const bytes = [`${name}.bin`, '\xfb\xff\xbf\n'];
        for (const [form, button, content] of [['base64', 'Download Base64 (.txt)', '-_-_Cg=='],
            ['standard', 'Download Base64 (.txt)', '+/+/Cg=='], ['hex', 'Download hex (.txt)', 'fbffbf0a']]) {
            assert.equal(await result(page, 'Data', form), content);
            assert.deepEqual(await save(button), [`${name}.txt`, content]);
            assert.deepEqual(await save('Download bytes (.bin)'), bytes);
        }
        // What was chosen last stays chosen.
        await fill(page, 'strIn', 'Brücke');
        await send(page);
        assert.equal(await page.locator('[data-result="Data"] .value-text').textContent(), Buffer.from('Brücke').toString('hex'));
        assert.equal(await result(page, 'Data', 'text'), 'Brücke');
        assert.deepEqual(await save('Download text (.txt)'), [`${name}.txt`, Buffer.from('Brücke').toString('latin1')]);
    }));

    test('The whole answer is there as JSON', onPage(async () => {
        const shown = async () => {
            await page.locator('.outcome-head').getByText('JSON').click();
            return page.locator('.json-text').textContent();
        };
        await openRequest(page, 'QZaven_crypto_hmac');
        await fillAll(page, { strHashAlg: '4', strKey: { hex: KEY }, strdata: 'x' });
        const answered = page.waitForResponse('**/v1/requests/*');
        await send(page);
        const text = await shown();
        assert.deepEqual(JSON.parse(text), await (await answered).json());
        await picture('json');
        assert.deepEqual(await accessibilityFaults(page), []);
        await page.getByRole('button', { name: 'Copy the JSON' }).click();
        assert.equal(await clipboard(), text);
        const download = page.waitForEvent('download');
        await page.getByRole('button', { name: 'Download JSON' }).click();
        assert.deepEqual(JSON.parse(readFileSync(await (await download).path())), JSON.parse(text));
        await page.locator('.outcome-head').getByText('Values').click();
        assert.equal(await page.locator('[data-result="Data"]').count(), 1);
        // A refusal has one too.
        await fill(page, 'strHashAlg', '');
        await send(page);
        assert.equal(JSON.parse(await shown()).error.code, '-20001');
    }));

    test('A command that is selected by the mouse is the one that runs', withPage({ viewport: SIZES.phone }, async () => {
        await openRequest(page, 'QZaven_crypto_hmac');
        await fillAll(page, { strHashAlg: '4', strKey: { hex: KEY }, strdata: `long ${'word '.repeat(900)}` });
        await send(page);
        const due = await result(page, 'Data', 'base64');
        for (const id of ['#curl-line', '#host-line']) {
            const selected = await page.locator(id).evaluate((element) => {
                getSelection().selectAllChildren(element);
                return getSelection().toString();
            });
            const style = await page.locator(id).evaluate((element) => getComputedStyle(element).whiteSpace);
            assert.equal(style, 'pre', 'lines do not break on the page where the shell has no break');
            const answer = JSON.parse(await runLine(selected, host));
            assert.equal((answer.results ?? answer).Data, due);
        }
        // Beside them stands what they need.
        assert.equal(await page.locator('#token-line').textContent(), 'export TOKEN=$(cat ~/.local/state/corvane-host/token)');
        assert.match(await page.locator('#curl-line').textContent(), /\$TOKEN/);
        // What no shell takes is no line.
        await fill(page, 'strdata', 'x'.repeat(130000));
        assert.deepEqual(await page.locator('.lines pre').evaluateAll((lines) => lines.map(({ id }) => id)), ['token-line']);
        assert.match(await page.locator('.lines').textContent(), /longer than a shell takes/);
    }));

    test('Chinese leaves no English behind', withPage({ locale: 'zh-CN' }, async () => {
        const english = async (what) => {
            const texts = await page.evaluate(() => {
                const own = 'code, pre, .mono, .code, .code + span, .file-name, noscript, nav, .top, .use';
                const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
                const found = [];
                while (walker.nextNode())
                    if (!walker.currentNode.parentElement.closest(own)) found.push(walker.currentNode.textContent);
                return found;
            });
            assert.deepEqual(texts.filter((text) => /[A-Za-z]{4}/.test(
                text.replace(/corvane-host( \w+)?|--[a-z-]+|Base64|Ctrl\+Enter|JSON|\.json|TOKEN|Camellia|ARIA|H?MAC|PKCS|cancelled|QZ\w+|[a-z]+_[a-z]+|curl|call|script/g, ''))), [], what);
        };
        await openRequest(page, 'QZaven_crypto_hmac');
        await fillAll(page, { strHashAlg: '4', strKey: { base64: 'A%' }, strdata: { file: newFile('13.bin', Buffer.alloc(13 << 20)) } });
        await submit();
        await page.locator('.attention button').click();
        await english('too large');
        await fill(page, 'strdata', 'x');
        await send(page);
        await page.locator('.outcome-head').getByText('JSON').click();
        await english('JSON');
        await picture('chinese-json');
        await openRequest(page, 'QZaven_crypto_encrypt');
        await fillAll(page, { ...GCM, strKey: { hex: KEY }, strIV: { hex: '00'.repeat(129) } });
        await english('lengths');
        await picture('chinese-lengths');
        let release = null;
        const held = new Promise((resolve) => { release = resolve; });
        await page.route('**/v1/requests/*', async (route) => {
            await held;
            await route.abort().catch(() => {});
        });
        await openRequest(page, 'QZaVen_GetVersion');
        await submit();
        await page.waitForSelector('.waiting');
        await english('waiting');
        await page.getByRole('button', { name: '取消' }).click();
        await page.waitForSelector('.answer .error-card');
        await english('cancelled');
        await picture('chinese-cancelled');
        release();
    }));
});
