// Files in a form in a browser: from the disk to the host, and from an answer to the disk.

import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import crypto from 'node:crypto';
import { readFileSync, writeFileSync } from 'node:fs';
import path from 'node:path';
import { describe, test } from 'node:test';

import { sampleRsa } from '../../devkit/console/samples.js';
import { field, fill, fillAll, openRequest, result, send } from './browser.mjs';
import { runLine } from './host.mjs';
import { GCM, KEY, clipboard, code, freshPage, host, kind, newFile, onPage, page, picture, request, shellLines,
    submit, useHost } from './suite.mjs';

async function ask(name, parameters) {
    const answer = await fetch(`${host.origin}/v1/requests/${name}`, { method: 'POST',
        headers: { Authorization: `Bearer ${host.token}`, 'Content-Type': 'application/json' },
        body: JSON.stringify(parameters) });
    return answer.json();
}

describe('Files', () => {
    useHost();

    test('A file of 13 MB is sent from the disk, and its HMAC is that of openssl', async () => {
        await freshPage();
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
        const shown = await shellLines();
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
        const [curl] = await shellLines();
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
        const [own] = await shellLines();
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

    test('Files go in and come out', onPage(async () => {
        const bytes = crypto.randomBytes(70000);
        const name = path.join(host.folder, 'in.bin');
        writeFileSync(name, bytes);
        await request('QZaven_crypto_base64_encode', { strIn: { file: name } });
        assert.equal(await page.locator('.field .size').textContent(), '68.4 KiB (70,000 bytes)');
        const download = page.waitForEvent('download');
        await page.locator('[data-result="Data"]').getByText('Download bytes').click();
        const saved = await download;
        assert.equal(saved.suggestedFilename(), 'QZaven_crypto_base64_encode-Data.bin');
        assert.deepEqual(readFileSync(await saved.path()), bytes);
        // The form's copy is whole, though the page shows a part.
        await page.locator('[data-result="Data"] .value-actions button').first().click();
        assert.equal(await clipboard(),
            bytes.toString('base64').replace(/\+/g, '-').replace(/\//g, '_'));
    }));

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
});
