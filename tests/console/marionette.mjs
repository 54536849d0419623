// Drives Firefox by Marionette, the protocol that it speaks itself: messages in JSON over TCP, each
// behind its length, as in 27:[0,1,"WebDriver:GetUrl",{}]. Just what the tests need of it.

import { spawn } from 'node:child_process';
import { mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import net from 'node:net';
import { tmpdir } from 'node:os';
import path from 'node:path';

const PAUSE = 50;  // milliseconds between two looks
const AMPLE = 600000;  // milliseconds; without a limit Firefox waits for no result at all

const pause = () => new Promise((resolve) => { setTimeout(resolve, PAUSE); });

// The port that Firefox has chosen, which it writes into its profile.
async function portOf(profile, child) {
    for (;;) {
        if (child.exitCode !== null || child.signalCode !== null) throw new Error('Firefox has ended');
        try {
            const port = Number(readFileSync(path.join(profile, 'MarionetteActivePort'), 'utf8'));
            if (port > 0) return port;
        } catch { /* not written yet */ }
        await pause();
    }
}

class Wire {
    constructor(socket) {
        this.socket = socket;
        this.rest = Buffer.alloc(0);
        this.waiting = new Map();
        this.lastId = 0;
        this.greeting = new Promise((resolve) => { this.greet = resolve; });
        socket.on('data', (data) => this.take(data));
        socket.on('close', () => { for (const { reject } of this.waiting.values()) reject(new Error('Firefox has hung up')); });
    }

    take(data) {
        this.rest = Buffer.concat([this.rest, data]);
        for (;;) {
            const colon = this.rest.indexOf(':');
            const end = colon + 1 + Number(this.rest.subarray(0, Math.max(colon, 0)).toString());
            if (colon < 0 || this.rest.length < end) return;
            const message = JSON.parse(this.rest.subarray(colon + 1, end).toString());
            this.rest = this.rest.subarray(end);
            if (!Array.isArray(message)) {
                this.greet(message);
                continue;
            }
            const [, id, error, value] = message;
            const { resolve, reject } = this.waiting.get(id);
            this.waiting.delete(id);
            if (error) reject(new Error(`${error.error}: ${error.message}`));
            else resolve(value);
        }
    }

    send(command, parameters = {}) {
        this.lastId += 1;
        const id = this.lastId;
        const text = Buffer.from(JSON.stringify([0, id, command, parameters]));
        this.socket.write(Buffer.concat([Buffer.from(`${text.length}:`), text]));
        return new Promise((resolve, reject) => { this.waiting.set(id, { resolve, reject }); });
    }
}

// {open(url), load(source), run(function, ...arguments), until(function, ...arguments), tab(url),
// screenshot(), stop()}. Functions run in the page; `until` waits until one gives something true.
export async function startFirefox(program = process.env.FIREFOX ?? 'firefox-esr') {
    const home = mkdtempSync(path.join(tmpdir(), 'corvane-firefox-'));
    const profile = path.join(home, 'profile');
    const preferences = { 'marionette.port': 0, 'app.update.enabled': false, 'browser.shell.checkDefaultBrowser': false,
        'datareporting.policy.dataSubmissionEnabled': false, 'network.captive-portal-service.enabled': false,
        'network.connectivity-service.enabled': false, 'browser.startup.page': 0, 'intl.accept_languages': 'en-GB',
        'intl.locale.requested': 'en-GB' };
    mkdirSync(profile);
    writeFileSync(path.join(profile, 'user.js'), Object.entries(preferences)
        .map(([name, value]) => `user_pref(${JSON.stringify(name)}, ${JSON.stringify(value)});\n`).join(''));
    const child = spawn(program, ['--headless', '--marionette', '--no-remote', '--profile', profile, '--width=1360', '--height=900'],
        { stdio: 'ignore', env: { ...process.env, HOME: home } });
    const failed = new Promise((resolve, reject) => { child.once('error', reject); });
    const ended = new Promise((resolve) => { child.once('exit', resolve); });
    const port = await Promise.race([portOf(profile, child), failed]);
    const socket = net.connect(port, '127.0.0.1');
    const wire = new Wire(socket);
    await wire.greeting;
    await wire.send('WebDriver:NewSession', { capabilities: { alwaysMatch: { pageLoadStrategy: 'normal' } } });
    await wire.send('WebDriver:SetTimeouts', { script: AMPLE, pageLoad: AMPLE });

    // A promise that the function gives is waited for.
    const run = async (work, ...values) => (await wire.send('WebDriver:ExecuteScript',
        { script: `return (${work})(...arguments);`, args: values, newSandbox: false })).value;
    return {
        run,
        // Makes a library known to what runs in the page.
        load: (source) => wire.send('WebDriver:ExecuteScript', { script: source, args: [], newSandbox: false }),
        open: (url) => wire.send('WebDriver:Navigate', { url }),
        async until(work, ...values) {
            for (;;) {
                const value = await run(work, ...values);
                if (value) return value;
                await pause();
            }
        },
        // Another tab, which is the current one from then on.
        async tab(url) {
            const { handle } = await wire.send('WebDriver:NewWindow', { type: 'tab' });
            await wire.send('WebDriver:SwitchToWindow', { handle });
            await wire.send('WebDriver:Navigate', { url });
        },
        async screenshot(name) {
            const { value } = await wire.send('WebDriver:TakeScreenshot', { full: true });
            writeFileSync(name, Buffer.from(value, 'base64'));
        },
        async stop() {
            await wire.send('Marionette:Quit', { flags: ['eForceQuit'] }).catch(() => child.kill());
            await ended;
            rmSync(home, { recursive: true, force: true });
        },
    };
}
