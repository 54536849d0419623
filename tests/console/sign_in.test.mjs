// Coming and leaving: what a reload keeps, how tabs sign in and out together, and what the sign-in
// says when it fails.

import assert from 'node:assert/strict';
import { describe, test } from 'node:test';

import { field, fill, fillAll, newPage, openRequest, openView, runFlow, send, signedIn } from './browser.mjs';
import { KEY, changeAnswers, freshPage, holdRequests, host, onPage, page, picture, request, submit, useHost,
    usePage } from './suite.mjs';

const READY = '.pill[data-state="ok"]';

describe('Sign-in', () => {
    useHost();

    // Another tab of the same browser, opened by hand.
    const tab = async (address = host.origin) => {
        const other = await page.context().newPage();
        await other.goto(address);
        return other;
    };
    const storage = (where = page) => where.evaluate(() => ({ local: { ...localStorage }, session: { ...sessionStorage } }));
    const card = () => page.locator('.error-card').textContent();

    test('A reload keeps the sign-in and the form, without its secrets', onPage(async () => {
        await openRequest(page, 'QZaven_crypto_encrypt');
        await fillAll(page, { strCipherAlg: '4', strMode: '6', strKey: { hex: KEY + KEY }, strIV: { hex: '000102030405060708090a0b' },
            straad: 'a secret header', strdata: 'a secret text', strgcmTagLen: '12' });
        await send(page);
        await openRequest(page, 'QZaven_crypto_private_decrypt');
        await fillAll(page, { strRsaPaddingE: '1', strPassword: 'a secret password' });
        await openRequest(page, 'QZaven_crypto_encrypt');
        await page.reload();
        await page.waitForSelector(READY);
        assert.equal(await page.locator('h1').textContent(), 'QZaven_crypto_encrypt');
        const input = (parameter) => field(page, parameter).locator('.control > select, .control > textarea, .control > input').inputValue();
        assert.deepEqual([await input('strCipherAlg'), await input('strMode'), await input('strgcmTagLen')], ['4', '6', '12']);
        assert.deepEqual([await input('strKey'), await input('strIV'), await input('straad'), await input('strdata')], ['', '', '', '']);
        assert.equal(await page.locator('.outcome').count(), 0);
        const { local, session } = await storage();
        assert.deepEqual(local, {});
        assert.deepEqual(Object.keys(session).sort(), ['corvane.forms', 'corvane.token']);
        assert.deepEqual(JSON.parse(session['corvane.forms']), {
            QZaven_crypto_encrypt: { strCipherAlg: '4', strMode: '6', strgcmTagLen: '12' },
            QZaven_crypto_private_decrypt: { strRsaPaddingE: '1' },
        });
        // A form that was emptied stays empty.
        await page.getByRole('button', { name: 'Empty the form' }).click();
        await page.reload();
        await page.waitForSelector(READY);
        assert.equal(await input('strCipherAlg'), '');
        await openRequest(page, 'QZaven_crypto_private_decrypt');
        assert.equal(await input('strRsaPaddingE'), '1');
    }));

    test('What a host does not say to be no secret is not kept', async () => {
        await freshPage();
        await changeAnswers('/v1/catalogue', ({ requests }) => {
            for (const parameter of requests.flatMap(({ parameters }) => parameters)) delete parameter.secret;
        });
        await page.goto(host.url);
        await page.waitForSelector(READY);
        await openRequest(page, 'QZaven_crypto_gen_symmkey');
        await fill(page, 'strCipherAlg', '4');
        await page.reload();
        await page.waitForSelector(READY);
        assert.deepEqual(Object.keys((await storage()).session), ['corvane.token']);
        await page.finish();
    });

    test('A second tab signs in by itself, and keeps nothing beyond it', onPage(async () => {
        const other = await tab();
        await other.waitForSelector(READY);
        assert.deepEqual(await storage(other), { local: {}, session: { 'corvane.token': host.token } });
        assert.ok(!other.url().includes(host.token));
        // It does not need the first one any longer.
        await page.goto('about:blank');
        await other.reload();
        await other.waitForSelector(READY);
        const third = await tab(`${host.origin}/#/request/QZaven_crypto_kdf`);
        await third.waitForSelector(READY);
        assert.equal(await third.locator('h1').textContent(), 'QZaven_crypto_kdf');
    }));

    test('A link that the page opens in a tab is signed in', onPage(async () => {
        const opened = page.context().waitForEvent('page');
        await page.locator('.tile').first().click({ modifiers: ['Control'] });
        const other = await opened;
        await other.bringToFront();
        await other.waitForSelector(READY);
        assert.equal(await other.locator('h1').textContent(), 'Encrypt and decrypt');
    }));

    test('Who signs out signs out all tabs', onPage(async () => {
        await openRequest(page, 'QZaven_crypto_encrypt');
        await fillAll(page, { strCipherAlg: '4', strdata: 'a secret text' });
        await page.evaluate(() => window.dispatchEvent(new Event('pagehide')));
        const other = await tab();
        await other.waitForSelector(READY);
        await other.getByRole('button', { name: 'Sign out' }).click();
        for (const where of [page, other]) {
            await where.waitForSelector('#token');
            assert.deepEqual((await storage(where)).session, {});
            assert.equal(await where.locator('.error-card').count(), 0);
        }
        // A new tab finds nobody who would tell.
        const late = await tab();
        await late.waitForSelector('#token');
        // Signed in again in one, the others follow, with empty forms.
        await late.locator('#token').fill(host.token);
        await late.keyboard.press('Enter');
        for (const where of [page, other, late]) await where.waitForSelector(READY);
        await openRequest(page, 'QZaven_crypto_encrypt');
        assert.equal(await field(page, 'strdata').locator('textarea').inputValue(), '');
    }, [401]));

    test('A token that the host did not take goes to no other tab', async () => {
        await freshPage({}, [401]);
        const heard = async (where) => where.evaluate(() => {
            window.heard = [];
            new BroadcastChannel('corvane.sign-in').onmessage = ({ data }) => window.heard.push(Object.keys(data).join());
        });
        await page.goto(host.origin);
        await page.waitForSelector('#token');
        await heard(page);
        const other = await tab(`${host.origin}/#token=wrong`);
        await other.waitForSelector('.error-card');
        assert.deepEqual((await storage(other)).session, {});
        assert.deepEqual(await page.evaluate(() => window.heard), []);
        await page.finish();
    });

    test('Another browser profile is another person', async () => {
        await usePage(signedIn(host));
        const stranger = await newPage(host, {}, [401]);
        await stranger.goto(host.origin);
        await stranger.waitForSelector('#token');
        await page.finish();
        await stranger.finish();
    });

    test('The sign-in says what is wrong with a token, and where to find the right one', async () => {
        await freshPage({}, [401]);
        await page.goto(host.origin);
        await page.waitForSelector('#token');
        assert.match(await page.locator('.sign-in-help').textContent(), /link with “#token=”.*~\/\.local\/state\/corvane-host\/token/s);
        await page.locator('#token').fill(host.token.slice(0, -1));
        await page.keyboard.press('Enter');
        await page.waitForSelector('.error-card');
        assert.match(await card(), /^The host does not take this token\..*a part is missing.*link from the terminal/);
        // It stands out like any other failure.
        assert.ok(await page.locator('.error-card').evaluate((element) =>
            getComputedStyle(element).backgroundColor !== getComputedStyle(document.body).backgroundColor && element.querySelector('svg') !== null));
        // The link does as well as the token.
        await page.locator('#token').fill(host.url);
        await page.keyboard.press('Enter');
        await page.waitForSelector(READY);
        assert.equal((await storage()).session['corvane.token'], host.token);
        await page.finish();
    });

    test('A link with a wrong token is not said to have been signed in', async () => {
        await freshPage({}, [401]);
        await page.goto(`${host.origin}/#token=wrong`);
        await page.waitForSelector('.error-card');
        assert.match(await card(), /does not take this token/);
        await page.finish();
    });

    test('A host that does not answer is said to be, with its address', async () => {
        await freshPage({}, [0]);
        await page.route('**/v1/catalogue', (route) => route.abort());
        await page.goto(host.url);
        await page.waitForSelector('.error-card');
        assert.match(await card(), new RegExp(`No host answers at ${host.origin}\\..*must still be running`));
        await page.unroute('**/v1/catalogue');
        await page.getByRole('button', { name: 'Try again' }).click();
        await page.waitForSelector(READY);
        await page.finish();
    });

    test('The token leaves the address, and alone is stored', onPage(async () => {
        assert.ok(!page.url().includes(host.token));
        assert.equal(await page.evaluate(() => window.history.length <= 2), true);
        await page.locator('#language').click();
        await page.locator('#language').click();
        await request('QZaven_crypto_hmac', { strHashAlg: '4', strKey: { hex: KEY }, strdata: 'a secret text' });
        await openView(page, '#/flow/gcm');
        await runFlow(page);
        const stored = await page.evaluate(() => ({ local: { ...localStorage }, session: { ...sessionStorage } }));
        assert.deepEqual(stored, { local: { 'corvane.language': 'en' }, session: { 'corvane.token': host.token } });
        assert.equal(await page.evaluate(() => document.cookie), '');
        assert.deepEqual(await page.evaluate(() => indexedDB.databases()), []);
    }));

    test('Without a token the page asks for it', async () => {
        await freshPage({}, [401]);
        await page.goto(host.origin);
        await page.waitForSelector('#token');
        assert.equal(await page.locator('.error-card').count(), 0);
        await page.locator('#token').fill('wrong');
        await page.keyboard.press('Enter');
        await page.waitForSelector('.error-card');
        assert.match(await page.locator('.error-card').textContent(), /does not take this token.*Copy the whole line/);
        await picture('sign-in-refused');
        await page.locator('#token').fill(host.token);
        await page.keyboard.press('Enter');
        await page.waitForSelector('.pill[data-state="ok"]');
        await page.getByRole('button', { name: 'Sign out' }).click();
        await page.waitForSelector('#token');
        assert.deepEqual(await page.evaluate(() => ({ ...sessionStorage })), {});
        await page.finish();
    });

    test('A token that is no longer taken leads to the sign-in', onPage(async () => {
        await openRequest(page, 'QZaVen_GetVersion');
        await page.evaluate(() => sessionStorage.setItem('corvane.token', 'stale'));
        await submit();
        await page.waitForSelector('#token');
        assert.match(await page.locator('.error-card').textContent(), /You were signed out.*token was replaced/);
    }, [401]));

    test('A damaged link leads to the sign-in', async () => {
        await freshPage({}, [401]);
        await page.goto(`${host.origin}/#token=%E6%A1`);
        await page.waitForSelector('.error-card');
        assert.match(await card(), /does not take this token/);
        // Also one that is pasted.
        await page.locator('#token').fill(`${host.origin}/#token=%`);
        await page.keyboard.press('Enter');
        await page.waitForFunction(() => document.querySelector('#token')?.value === '');
        await page.locator('#token').fill(host.token);
        await page.keyboard.press('Enter');
        await page.waitForSelector(READY);
        await page.finish();
    });

    // Both calls are answered, but after the person has left.
    const signOutAndIn = async (release) => {
        const sent = [];
        page.on('request', (asked) => { if (/requests|peer/.test(asked.url())) sent.push(asked.url()); });
        await page.getByRole('button', { name: 'Sign out' }).click();
        await page.waitForSelector('#token');
        release();
        // Longer than the host takes to answer, and the page to take another step.
        await page.waitForTimeout(500);
        assert.deepEqual(sent, []);
        assert.equal(await page.locator('.error-card').count(), 0);
        await page.locator('#token').fill(host.token);
        await page.keyboard.press('Enter');
        await page.waitForSelector(READY);
        await openView(page, '#/history');
        assert.equal(await page.locator('tbody tr').count(), 0);
    };

    test('What was on its way is nobody\'s after signing out', onPage(async () => {
        await openRequest(page, 'QZaven_ke_new');
        const release = await holdRequests();
        await submit();
        await signOutAndIn(release);
        await openRequest(page, 'QZaven_ke_free');
        assert.equal(await field(page, 'strKe').locator('.chip').count(), 0);
    }));

    test('A guided flow ends with the sign-in', onPage(async () => {
        await openView(page, '#/flow/gcm');
        const release = await holdRequests();
        await submit();
        await page.waitForSelector('.step[data-state="running"]');
        await signOutAndIn(release);
        await openView(page, '#/flow/gcm');
        assert.equal(await page.locator('.step:not([data-state="waiting"])').count(), 0);
    }));

    test('A refusal of the former token is no word on the new one', async () => {
        await freshPage({}, [401]);
        // The host takes both but for requests.
        await page.route(/\/v1\/(catalogue|status)$/, (route) => route.continue({
            headers: { ...route.request().headers(), authorization: `Bearer ${host.token}` } }));
        await page.goto(`${host.origin}/#token=former`);
        await page.waitForSelector(READY);
        await openRequest(page, 'QZaVen_GetVersion');
        const release = await holdRequests();
        await submit();
        await page.evaluate((token) => { location.hash = `#token=${token}`; }, host.token);
        await page.waitForFunction(() => document.querySelector('h1')?.textContent === 'Try what this host can do');
        const refused = page.waitForResponse('**/v1/requests/*');
        release();
        assert.equal((await refused).status(), 401);
        await openView(page, '#/history');
        assert.equal((await storage()).session['corvane.token'], host.token);
        assert.equal(await page.locator('#token').count(), 0);
        await page.finish();
    });
});
