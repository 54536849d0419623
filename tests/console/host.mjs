// A running "corvane-host serve" with a token of its own, and what the tests need around it.
// The build tree is named by CORVANE_BUILD.

import { execFile, spawn } from 'node:child_process';
import { mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { promisify } from 'node:util';

export const build = process.env.CORVANE_BUILD;
if (!build) throw new Error('CORVANE_BUILD must name the build tree');

const hostProgram = path.join(build, 'bin/corvane-host');
const peerProgram = path.join(build, 'bin/corvane-ke-peer');

// Ample: the machine may be busy.
const START_LIMIT = 60000;  // milliseconds

// {origin, token, url, folder, stop()}; `url` signs in, `folder` is for the test's own files.
export async function startHost(...options) {
    const folder = mkdtempSync(path.join(tmpdir(), 'corvane-console-'));
    const child = spawn(hostProgram, ['serve', '--listen', '127.0.0.1:0', '--workers', '2',
        '--token-file', path.join(folder, 'token'), '--access-log', path.join(folder, 'access.log'), ...options],
    { stdio: ['ignore', 'pipe', 'pipe'] });
    let output = '';
    let errors = '';
    child.stderr.on('data', (data) => { errors += data; });
    const ended = new Promise((resolve) => { child.once('exit', resolve); });
    const match = await new Promise((resolve, reject) => {
        const timer = setTimeout(() => reject(new Error(`the host did not start: ${output}${errors}`)), START_LIMIT);
        child.once('exit', (code) => reject(new Error(`the host ended with ${code}: ${output}${errors}`)));
        child.stdout.on('data', (data) => {
            output += data;
            const found = output.match(/console: (http:\S+)\/\n/);
            if (!found) return;
            clearTimeout(timer);
            resolve(found);
        });
    });
    const token = readFileSync(path.join(folder, 'token'), 'utf8').trim();
    const host = {
        origin: match[1],
        token,
        url: `${match[1]}/#token=${token}`,
        folder,
        async stop() {
            if (child.exitCode === null && child.signalCode === null) child.kill('SIGTERM');
            await ended;
            rmSync(folder, { recursive: true, force: true });
        },
    };
    while (!(await fetch(`${host.origin}/readyz`)).ok)
        await new Promise((resolve) => { setTimeout(resolve, 50); });
    return host;
}

export async function getJson(host, address) {
    const answer = await fetch(host.origin + address, { headers: { Authorization: `Bearer ${host.token}` } });
    return answer.json();
}

const run = promisify(execFile);

// Runs a line as a person would, with the token in TOKEN and corvane-host in the path.
export async function runLine(line, host) {
    const env = { ...process.env, TOKEN: host.token, PATH: `${path.dirname(hostProgram)}:${process.env.PATH}` };
    const { stdout } = await run('bash', ['-c', line], { cwd: host.folder, env, maxBuffer: 1 << 26 });
    return stdout;
}

// One step of the key exchange's other side.
export async function peer(...words) {
    const { stdout } = await run(peerProgram, words);
    return stdout.trim();
}
