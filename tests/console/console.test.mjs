// The console in a browser, against a running host: every request, forms and their answers, lines
// for the shell, status.

import assert from 'node:assert/strict';
import crypto from 'node:crypto';
import { writeFileSync } from 'node:fs';
import path from 'node:path';
import { describe, test } from 'node:test';

import { sampleRsa, sampleSm2 } from '../../devkit/console/samples.js';
import { accessibilityFaults, field, fill, fillAll, openRequest, openView, result, send, signedIn } from './browser.mjs';
import { getJson, peer, runLine, startHost } from './host.mjs';
import { KEY, clipboard, code, heading, holdRequests, host, onPage, page, picture, request, shellLines, submit,
    useHost, usePage } from './suite.mjs';

const IV = 'f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff';

// AES-128 in CBC, padded.
function aes(data) {
    const cipher = crypto.createCipheriv('aes-128-cbc', Buffer.from(KEY, 'hex'), Buffer.from(IV, 'hex'));
    return Buffer.concat([cipher.update(data), cipher.final()]).toString('hex');
}

// What follows sends every request once by `call(name, values, form)`, which gives the result "Data".

async function sendSymmetric(call) {
    assert.match(await call('QZaVen_GetVersion', {}, 'text'), /engine/);
    assert.match(await call('QZaVen_strerror', { strErr: '-20001' }, 'text'), /required parameter/);
    assert.equal(await call('QZaven_crypto_base64_encode', { strIn: 'Brücke' }, 'text'), 'Brücke');
    assert.equal(await call('QZaven_crypto_base64_Decode', { strIn: { base64: 'QnLDvGNrZQ==' } }, 'text'), 'Brücke');

    const key = await call('QZaven_crypto_gen_symmkey', { strCipherAlg: '2' });
    assert.equal(Buffer.from(key, 'base64').length, 16);
    const cbc = { strCipherAlg: '2', strMode: '2', strCipherPadding: '1', strKey: { hex: KEY }, strIV: { hex: IV } };
    const sealed = await call('QZaven_crypto_encrypt', { ...cbc, strdata: 'a text' }, 'hex');
    assert.equal(sealed, aes('a text'));
    assert.equal(await call('QZaven_crypto_decrypt', { ...cbc, strdata: { hex: sealed } }, 'text'), 'a text');
    assert.equal(await call('QZaven_crypto_hmac', { strHashAlg: '4', strKey: { hex: KEY }, strdata: 'a text' }, 'hex'),
        crypto.createHmac('sha256', Buffer.from(KEY, 'hex')).update('a text').digest('hex'));
    // The first example of RFC 4493.
    assert.equal(await call('QZaven_crypto_cmac', { strCipherAlg: '2', strKey: { hex: '2b7e151628aed2a6abf7158809cf4f3c' },
        strdata: { hex: '6bc1bee22e409f96e93d7e117393172a' } }, 'hex'), '070a16b46b4d4144f79bdd9dd04a287c');
    assert.equal(await call('QZaven_crypto_kdf', { HashType: '4', srcdata: 'secret', OutLen: '32' }, 'hex'),
        crypto.createHash('sha256').update('secret').update(Buffer.from('00000001', 'hex')).digest('hex'));
    const box = { strKey: { hex: KEY }, strIV: { hex: IV } };
    const boxed = await call('QZaven_wbsm4_encrypt', { ...box, strdata: 'a text' });
    assert.equal(await call('QZaven_wbsm4_decrypt', { ...box, strdata: { base64: boxed } }, 'text'), 'a text');
}

async function sendPublic(call) {
    const wrapped = await call('QZaven_crypto_public_encrypt',
        { strKeyPairType: '3', strpk: { base64: sampleRsa.certificate }, strdata: 'a text' });
    assert.equal(crypto.privateDecrypt({
        key: crypto.createPrivateKey({ key: Buffer.from(sampleRsa.privateKey, 'base64'), format: 'der', type: 'pkcs8' }),
        oaepHash: 'sha256',
    }, Buffer.from(wrapped, 'base64')).toString(), 'a text');
    assert.equal(await call('QZaven_crypto_private_decrypt',
        { strKeyPairType: '3', strsk: { base64: sampleRsa.privateKey }, strdata: { base64: wrapped } }, 'text'), 'a text');
    const envelope = await call('QZaven_crypto_envelope_encrypt',
        { strdata: 'a text', strpk: { base64: sampleSm2.certificate }, strCipherAlg: '1', strMode: '2' });
    assert.equal(await call('QZaven_crypto_envelope_decrypt', { strEncdata: { base64: envelope }, strKeyPairType: '1',
        strsk: { base64: sampleSm2.privateKey }, strCipherAlg: '1', strMode: '2' }, 'text'), 'a text');
}

// The other side is a program of its own.
async function sendExchange(call) {
    const side = path.join(host.folder, 'side');
    await peer('make-certs', side);
    const strKe = await call('QZaven_ke_new', {}, 'text');
    const { privateKey, certificate } = sampleSm2;
    await call('QZaven_ke_set_public_key', { strKe, strSig_key: { base64: privateKey }, strEnc_key: { base64: privateKey } });
    await call('QZaven_ke_set_certificate', { strKe, strSig_cert: { base64: certificate }, strEnc_cert: { base64: certificate } });
    await call('QZaven_ke_set_root_certificate', { strKe, strCa_file: { file: path.join(side, 'root.crt') } });
    const hello = await call('QZaven_ke_client_hello', { strKe });
    const answer = JSON.parse(await peer('answer', '--dir', side, '--hello', hello));
    const message = await call('QZaven_ke_client_key_exchange', { strKe,
        ...Object.fromEntries(Object.entries(answer).map(([name, value]) => [name, { base64: value }])) });
    await peer('finish', '--dir', side, '--message', message);
    const letter = await call('QZaven_ke_encrypt', { strKe, strdata: 'a letter' });
    const data = Buffer.from('a letter').toString('base64');
    assert.equal(await peer('decrypt', '--dir', side, '--data', letter), data);
    const reply = await peer('encrypt', '--dir', side, '--data', data);
    assert.equal(await call('QZaven_ke_decrypt', { strKe, strcipher: { base64: reply } }, 'text'), 'a letter');
    for (const mac of ['hmac', 'cmac']) {
        const value = await call(`QZaven_ke_${mac}`, { strKe, strdata: 'a letter' }, 'hex');
        assert.equal(value, Buffer.from(await peer(mac, '--dir', side, '--data', data), 'base64url').toString('hex'));
    }
    await call('QZaven_ke_free', { strKe });
    return strKe;
}

describe('Console', () => {
    useHost();

    test('Each request is sent from its form', onPage(async () => {
        const sent = new Set();
        const call = async (name, values, form) => {
            sent.add(name);
            return request(name, values, form);
        };
        await sendSymmetric(call);
        await sendPublic(call);
        const strKe = await sendExchange(call);

        const { requests } = await getJson(host, '/v1/catalogue');
        assert.deepEqual([...sent].sort(), requests.map(({ name }) => name).sort());
        await openView(page, '#/history');
        assert.equal(await page.locator('tbody tr').count(), 27);
        const history = await page.locator('main').textContent();
        for (const secret of ['a text', 'a letter', strKe, KEY]) assert.ok(!history.includes(secret), secret);
        await picture('history');
    }));

    test('What is wrong is said while it is typed, and may be sent all the same', onPage(async () => {
        await openRequest(page, 'QZaven_crypto_kdf');
        const problem = (parameter) => field(page, parameter).locator('.problem').textContent();
        assert.equal(await problem('srcdata'), '');
        await fill(page, 'OutLen', '70000');
        assert.equal(await problem('OutLen'), 'Must be 0 to 65535; it is 70000.');
        await submit();
        assert.equal(await problem('srcdata'), 'Required, and still empty.');
        assert.match(await page.locator('.attention').textContent(), /^3 fields need a look/);
        assert.equal(await page.evaluate(() => document.activeElement.closest('[data-parameter]').dataset.parameter), 'HashType');
        await send(page);
        assert.equal(await code(), '-20001');
        assert.match(await page.locator('.error-card').textContent(), /PARAM_MISSING.*required parameter.*case-sensitive/);
        await picture('error');

        await fillAll(page, { HashType: '1', srcdata: 'secret' });
        await send(page);
        assert.equal(await code(), '-20084');
        await fill(page, 'OutLen', '16');
        assert.equal(await problem('OutLen'), '');
    }));

    test('Half a hex byte cannot be sent', onPage(async () => {
        await openRequest(page, 'QZaven_crypto_hmac');
        await fillAll(page, { strHashAlg: '4', strKey: { hex: '000' }, strdata: 'x' });
        assert.match(await field(page, 'strKey').locator('.problem').textContent(), /two digits/);
        await submit();
        assert.equal(await page.locator('.attention').textContent(), 'One field needs a look.');
        assert.equal(await page.locator('.attention button').count(), 0);
        assert.match(await page.locator('.lines').textContent(), /cannot be sent yet/);
    }));

    test('The mode decides which parameters are asked for', onPage(async () => {
        await openRequest(page, 'QZaven_crypto_encrypt');
        const asked = async (parameter) => field(page, parameter).locator('.control').isVisible();
        const need = (parameter) => field(page, parameter).locator('.need').textContent();
        await fill(page, 'strMode', '1');
        assert.deepEqual([await asked('strIV'), await asked('straad')], [false, false]);
        assert.match(await field(page, 'strIV').textContent(), /Not used with ECB\./);
        await fill(page, 'strMode', '2');
        assert.deepEqual([await asked('strIV'), await asked('straad'), await need('strIV')], [true, false, 'required']);
        await fill(page, 'strMode', '6');
        assert.deepEqual([await asked('straad'), await need('straad'), await need('strgcmTagLen')], [true, 'required', 'optional']);
        // What is not used is not sent.
        await fill(page, 'straad', 'header');
        assert.match(await page.locator('#host-line').textContent(), /straad/);
        await fill(page, 'strMode', '2');
        assert.doesNotMatch(await page.locator('#host-line').textContent(), /straad/);
    }));

    test('Random bytes have the size that was asked for', onPage(async () => {
        await openRequest(page, 'QZaven_wbsm4_encrypt');
        const key = field(page, 'strKey');
        assert.deepEqual(await key.locator('.chip').allTextContents(), ['Random: 16 bytes']);
        await key.locator('.chip').click();
        const first = await key.locator('textarea').inputValue();
        assert.match(first, /^[0-9a-f]{32}$/);
        assert.equal(await key.locator('.size').textContent(), '16 bytes');
        await key.locator('.chip').click();
        assert.notEqual(await key.locator('textarea').inputValue(), first);
    }));

    test('Passwords are masked', onPage(async () => {
        await openRequest(page, 'QZaven_crypto_private_decrypt');
        assert.equal(await field(page, 'strPassword').locator('input').getAttribute('type'), 'password');
    }));

    test('A code of the engine is explained', onPage(async () => {
        await openRequest(page, 'QZaven_crypto_cmac');
        await fillAll(page, { strCipherAlg: '4', strKey: { hex: '0011' }, strdata: 'x' });
        await send(page);
        assert.equal(await code(), '-30040');
        assert.match(await page.locator('.error-card').textContent(),
            /AVEN_E_KEY_LENGTH.*refused by the engine.*Wrong key length.*16 bytes for SM4/i);
    }));

    test('A session that is gone is said to be', onPage(async () => {
        await openRequest(page, 'QZaven_ke_client_hello');
        await fill(page, 'strKe', 'ke_of_another_day');
        await send(page);
        assert.equal(await code(), 'session_gone');
        assert.match(await page.locator('.error-card').textContent(), /QZaven_ke_new/);
    }, [410]));

    test('The host\'s warnings stand at their fields', onPage(async () => {
        await page.route('**/v1/requests/**', (route) => route.fulfill({ json: {
            results: { Data: '', errorCode: '-20084' },
            error: { code: '-20084', source: 'plug-in', name: 'PARAM_INVALID', text: 'x', cause: '', remedy: '' },
            warnings: [{ field: 'strKey', text: 'strKey must be 16 bytes' }, { field: 'strOld', text: 'strOld is not a parameter of it' }],
            microseconds: 1,
        } }));
        await openRequest(page, 'QZaven_crypto_hmac');
        await fillAll(page, { strHashAlg: '4', strKey: { hex: '00' }, strdata: 'x' });
        await send(page);
        assert.equal(await field(page, 'strKey').locator('.warning').textContent(), 'strKey must be 16 bytes');
        assert.match(await page.locator('.answer').textContent(), /strOld is not a parameter of it/);
        await fill(page, 'strKey', { hex: '0011' });
        assert.equal(await field(page, 'strKey').locator('.warning').textContent(), '');
    }));

    test('A result becomes a parameter of another request', onPage(async () => {
        await request('QZaven_crypto_gen_symmkey', { strCipherAlg: '2' });
        const key = await result(page, 'Data', 'base64');
        const use = async (name, target) => {
            await page.locator(`[data-result="${name}"] .use summary`).click();
            if (target) await page.locator(`[data-result="${name}"] .use select`).selectOption(target);
            await page.locator(`[data-result="${name}"] .use-panel button`).click();
        };
        // A key is offered as a key, and the cipher comes along.
        await use('Data', '');
        await heading('QZaven_crypto_encrypt');
        assert.equal(await field(page, 'strKey').locator('textarea').inputValue(), key);
        assert.equal(await field(page, 'strCipherAlg').locator('select').inputValue(), '2');
        assert.equal(await page.evaluate(() => document.activeElement.closest('[data-parameter]').dataset.parameter), 'strKey');

        await fillAll(page, { strMode: '6', strIV: { hex: '000102030405060708090a0b' }, straad: 'header', strdata: 'to and fro' });
        await send(page);
        await picture('answer');
        await use('gcmOutTag', 'QZaven_crypto_decrypt strtag');
        await openRequest(page, 'QZaven_crypto_encrypt');
        await use('Data', 'QZaven_crypto_decrypt strdata');
        // The tag is still there; the second use took nothing of its name along.
        await send(page);
        assert.equal(await result(page, 'Data', 'text'), 'to and fro');

        // Sessions are offered where one is asked for.
        const session = await request('QZaven_ke_new', {}, 'text');
        await openRequest(page, 'QZaven_ke_free');
        await field(page, 'strKe').locator('.chip').click();
        assert.equal(await field(page, 'strKe').locator('input').inputValue(), session);
        await send(page);
        await openRequest(page, 'QZaven_ke_client_hello');
        assert.equal(await field(page, 'strKe').locator('.chip').count(), 0);
    }));

    test('The command lines run, and give the same answer', onPage(async () => {
        writeFileSync(path.join(host.folder, "a 'file' $x.bin"), Buffer.from([0, 255, 10, 13]));
        const here = (name) => ({ file: path.join(host.folder, name) });
        const hmac = (key, data) => ['QZaven_crypto_hmac', { strHashAlg: '4', strKey: key, strdata: data }];
        const cases = [
            hmac({ hex: '00 01:02' }, "it's \"quoted\" $HOME `id` \\ ! 桥\nsecond line"),
            hmac({ base64: '-_8' }, 'b64:not a form'),
            hmac('text:x', '@/etc/hostname'),
            hmac({ hex: KEY }, here("a 'file' $x.bin")),
            hmac({ hex: KEY }, { base64: 'SmVm % Jefe' }),
            hmac({ base64: 'A%' }, here("a 'file' $x.bin")),
            hmac("line\n'line' \\", here("a 'file' $x.bin")),
            ['QZaven_crypto_base64_encode', { strIn: 'hex:00 is a text; here' }],
            ['QZaven_crypto_base64_encode', { strIn: "-n 'x'\t\\n" }],
            ['QZaven_crypto_base64_encode', { strIn: { hex: 'ff00fe' } }],
            ['QZaven_crypto_base64_encode', { strIn: here("a 'file' $x.bin") }],
            ['QZaven_crypto_base64_Decode', { strIn: { base64: 'AP8K' } }],
            ['QZaven_crypto_kdf', { HashType: '0', srcdata: '@x', OutLen: '70000' }],
        ];
        for (const [name, values] of cases) {
            await openRequest(page, name);
            await fillAll(page, values);
            const lines = await shellLines();
            assert.ok(!lines[0].includes(host.token));
            const [curl, call] = await Promise.all(lines.map((line) =>
                runLine(line, host).catch((error) => error.stdout)));
            await send(page);
            const state = `${name} ${lines.join('\n')}`;
            assert.deepEqual(JSON.parse(curl).results, JSON.parse(call), state);
            const { errorCode, Data } = JSON.parse(call);
            if (errorCode !== '0') assert.equal(errorCode, await code(), state);
            else if (name === 'QZaven_crypto_base64_Decode') assert.equal(Data, '%2500%25FF%250A', state);
            else assert.equal(await result(page, 'Data', 'base64'), Data, state);

            await page.locator('.line-head button').first().click();
            assert.equal(await clipboard(), lines[0]);
        }
    }));

    test('Base64 is shown as the API gives it, and in the standard alphabet on demand', onPage(async () => {
        await request('QZaven_crypto_base64_encode', { strIn: { hex: 'fbffbf' } });
        const shown = () => page.locator('[data-result="Data"] .value-text').textContent();
        assert.equal(await shown(), '-_-_');
        await picture('url-safe');
        assert.equal(await result(page, 'Data', 'standard'), '+/+/');
        await page.locator('[data-result="Data"] .value-actions button').first().click();
        assert.equal(await clipboard(), '+/+/');
        assert.equal(await result(page, 'Data', 'base64'), '-_-_');
    }));

    test('An answer to former values is marked, and a refusal takes its place', onPage(async () => {
        const stale = page.locator('.answer.is-stale');
        const note = page.locator('.answer .stale-note');
        await request('QZaven_crypto_base64_encode', { strIn: 'one' });
        assert.equal(await stale.count(), 0);
        await fill(page, 'strIn', 'two');
        assert.equal(await stale.count(), 1);
        assert.match(await note.textContent(), /form has changed/);
        await picture('stale');
        assert.deepEqual(await accessibilityFaults(page), []);
        // It is still so after a look elsewhere.
        await openRequest(page, 'QZaVen_GetVersion');
        await openRequest(page, 'QZaven_crypto_base64_encode');
        assert.equal(await stale.count(), 1);
        await send(page);
        assert.equal(await stale.count(), 0);
        assert.equal(await result(page, 'Data', 'base64'), 'dHdv');

        const large = path.join(host.folder, 'too-large.bin');
        writeFileSync(large, Buffer.alloc(17 << 20));
        await fill(page, 'strIn', { file: large });
        assert.equal(await stale.count(), 1);
        await submit();
        await page.waitForSelector('.answer .error-card');
        assert.equal(await page.locator('.answer [data-result]').count(), 0);
        assert.equal(await stale.count(), 0);
    }));

    test('A form that changes while its answer is on the way makes that a former one', onPage(async () => {
        await openRequest(page, 'QZaven_crypto_base64_encode');
        await fill(page, 'strIn', 'one');
        const release = await holdRequests();
        await submit();
        await fill(page, 'strIn', 'two');
        release();
        await page.waitForSelector('.answer [data-result="Data"]');
        assert.equal(await result(page, 'Data', 'base64'), 'b25l');
        assert.equal(await page.locator('.answer.is-stale').count(), 1);
    }));

    test('A result that is put into another form makes its answer a former one', onPage(async () => {
        await request('QZaven_crypto_base64_Decode', { strIn: { base64: 'QQ' } });
        await request('QZaven_crypto_base64_encode', { strIn: 'one' });
        await page.locator('[data-result="Data"] .use summary').click();
        await page.locator('[data-result="Data"] .use select').selectOption('QZaven_crypto_base64_Decode strIn');
        await page.locator('[data-result="Data"] .use-panel button').click();
        await heading('QZaven_crypto_base64_Decode');
        assert.equal(await page.locator('.answer.is-stale').count(), 1);
    }));

    test('The search finds requests by name and by meaning', onPage(async () => {
        const found = () => page.locator('nav li:not([hidden]) a').evaluateAll((links) =>
            links.filter((link) => link.checkVisibility()).map((link) => link.getAttribute('href')));
        await page.locator('#search').fill('cmac');
        assert.deepEqual(await found(), ['#/request/QZaven_crypto_cmac', '#/request/QZaven_ke_cmac']);
        await page.locator('#search').fill('holder certificate');
        assert.deepEqual(await found(), ['#/flow/envelope', '#/request/QZaven_crypto_envelope_encrypt']);
        await page.locator('#search').fill('nothing of the sort');
        assert.deepEqual(await found(), []);
        assert.ok(await page.getByText('Nothing found for “nothing of the sort”.').isVisible());
    }));

    test('Status shows workers and engine', onPage(async () => {
        await openView(page, '#/status');
        assert.equal(await page.locator('tbody tr').count(), 2);
        assert.match(await page.locator('.facts').first().textContent(), /development engine/);
        assert.equal(await page.locator('.pill').textContent(), '2 of 2 workers ready');
        // It follows the host by itself.
        const uptime = await page.locator('.facts').first().textContent();
        await page.waitForFunction((before) => document.querySelector('.facts').textContent !== before, uptime);
    }));

    test('A host that ends is noticed, and asked again', async () => {
        const brief = await startHost();
        await usePage(signedIn(brief, {}, [0]));
        await openRequest(page, 'QZaVen_GetVersion');
        await brief.stop();
        await submit();
        await page.waitForSelector('.error-card');
        assert.equal(await code(), 'unreachable');
        assert.match(await page.locator('.error-card').textContent(), /noticed by this page.*does not answer.*corvane-host serve/);
        await page.waitForSelector('.pill[data-state="bad"]');
        await picture('unreachable');
        await page.finish();
    });
});
