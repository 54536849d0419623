// packaging/kubernetes is whole and fits the host; and each kind of error there would be seen.

import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { readFileSync } from 'node:fs';
import path from 'node:path';
import test from 'node:test';
import { folder, problems, readManifests } from './manifests.mjs';

const program = path.join(process.env.CORVANE_BUILD, 'bin/corvane-host');
const say = (...words) => execFileSync(program, words, { encoding: 'utf8' });

// What the host says of itself.
function theHost() {
    const { paths } = JSON.parse(say('openapi'));
    const script = readFileSync(path.join(folder, '../build-image.sh'), 'utf8');
    return {
        help: say('serve', '--help'),
        version: say('--version').match(/\d+\.\d+\.\d+/)[0],
        openPaths: Object.keys(paths).filter((name) => paths[name].get?.security?.length === 0),
        imageUser: Number(script.match(/--user (\d+):/)[1]),
    };
}
const host = theHost();

test('The host says what the manifests are held against', () => {
    assert.ok(host.openPaths.includes('/livez'), host.openPaths.join());
    assert.ok(!host.openPaths.includes('/metrics'), host.openPaths.join());
    assert.match(host.help, /--listen/);
});

test('The manifests are whole and fit together', () => {
    assert.deepEqual(problems(readManifests(), host), []);
});

// [what is wrong, how it got in, what is to be said of it]. `pod` is the pod's spec.
const errors = [
    // Against the schemas.
    ['a number that is a text', ({ set }) => { set.spec.replicas = 'three'; }, /replicas must be integer/],
    ['a field that is missing', ({ set }) => { delete set.spec.serviceName; }, /required property serviceName/],
    ['a value that does not exist', ({ set }) => { set.spec.podManagementPolicy = 'AllAtOnce'; },
        /podManagementPolicy must be equal to one of/],
    ['a list that is none', ({ container }) => { container.args = 'serve'; }, /args must be array/],
    ['a misspelt field', ({ container }) => { container.readynessProbe = container.readinessProbe; },
        /unknown field .*readynessProbe/],
    ['a field in the wrong place', ({ pod }) => { pod.readOnlyRootFilesystem = true; },
        /unknown field \/spec\/template\/spec\/readOnlyRootFilesystem/],
    ['a kind that does not exist', ({ files }) => { files['services.yaml'][0].apiVersion = 'v2'; }, /no schema for v2/],
    // Against each other.
    ['another name of the Service', ({ set }) => { set.spec.serviceName = 'nodes'; }, /no headless Service nodes/],
    ['a lame duck without a name', ({ files }) => { delete files['services.yaml'][0].spec.publishNotReadyAddresses; },
        /loses its name/],
    ['other labels of pods', ({ set }) => { set.spec.template.metadata.labels = { 'app.kubernetes.io/name': 'host' }; },
        /PodDisruptionBudget selects no pod/],
    ['another selector of a Service', ({ files }) => { files['services.yaml'][1].spec.selector = { app: 'x' }; },
        /Service corvane-host selects no pod/],
    ['another namespace', ({ files }) => { files['network-policy.yaml'][0].metadata.namespace = 'default'; },
        /NetworkPolicy corvane-host is not in the namespace/],
    ['another port', ({ files }) => { files['services.yaml'][1].spec.ports[0].targetPort = 8443; },
        /leads to a port 8443/],
    ['a port that nobody listens on', ({ container }) => { container.ports[0].containerPort = 8443; },
        /nobody names port 8720/],
    ['another Secret', ({ pod }) => { pod.volumes[0].secret.secretName = 'token'; },
        /no Secret has --token-file .*\/token/],
    ['a key that no Secret has', ({ files }) => { delete files['secrets.yaml'][1].stringData['tls.key']; },
        /no Secret has --tls-key/],
    ['a Secret for everybody\'s eyes', ({ files }) => { files['secrets.yaml'][0].stringData.token = '0123'; },
        /is not a placeholder/],
    ['a mode that is read as decimal', ({ pod }) => { pod.volumes[0].secret.defaultMode = 440; }, /mode 0440/],
    ['a volume that is not there', ({ container }) => { container.volumeMounts[0].name = 'tokens'; },
        /no volume tokens/],
    ['Secrets that kustomize would put back', ({ files }) => {
        files['kustomization.yaml'][0].resources.push('secrets.yaml');
    }, /does not list the other files/],
    ['a budget that holds machines', ({ files }) => {
        files['disruption-budget.yaml'][0].spec.maxUnavailable = 0;
    }, /cannot be emptied/],
    ['a way out', ({ files }) => { files['network-policy.yaml'][0].spec.egress = [{}]; }, /may ask others/],
    ['a way in for everybody', ({ files }) => { delete files['network-policy.yaml'][0].spec.ingress[0].from; },
        /everybody may ask/],
    // Against the host.
    ['an option that the host has not', ({ container }) => { container.args.push('--lame-duck=3'); },
        /no option --lame-duck$/],
    ['a path that the host has not', ({ container }) => { container.livenessProbe.httpGet.path = '/healthz'; },
        /livenessProbe asks \/healthz/],
    ['a path that needs a token', ({ container }) => { container.readinessProbe.httpGet.path = '/metrics'; },
        /readinessProbe asks \/metrics/],
    ['a probe without a name', ({ container }) => { delete container.startupProbe.httpGet.httpHeaders; },
        /startupProbe does not ask for localhost/],
    ['a probe without TLS', ({ container }) => { delete container.livenessProbe.httpGet.scheme; },
        /livenessProbe does not ask by HTTPS/],
    ['too little time for the end', ({ pod }) => { pod.terminationGracePeriodSeconds = 50; },
        /50 s are too short for 20 s and 30 s/],
    ['a node without its name', ({ container }) => { container.env[0].valueFrom.fieldRef.fieldPath = 'metadata.uid'; },
        /not called like its pod/],
    ['a variable that nobody sets', ({ container }) => { container.env[0].name = 'POD'; }, /nobody sets POD_NAME/],
    ['a name that the host does not know', ({ files }) => { files['services.yaml'][1].metadata.name = 'crypto'; },
        /not known as crypto\.corvane\.svc/],
    ['another user', ({ pod }) => { pod.securityContext.runAsUser = 1000; }, /the image's user/],
    ['a root that is written', ({ container }) => { container.securityContext.readOnlyRootFilesystem = false; },
        /a root that nobody writes/],
    ['a capability', ({ container }) => { container.securityContext.capabilities.add = ['SYS_ADMIN']; },
        /no capabilities/],
    ['an old image', ({ container }) => { container.image = 'corvane-host:0.9.0'; }, /image is not of/],
];

for (const [what, plant, said] of errors)
    test(`Seen: ${what}`, () => {
        const files = readManifests();
        const [set] = files['statefulset.yaml'];
        const pod = set.spec.template.spec;
        plant({ files, set, pod, container: pod.containers[0] });
        const found = problems(files, host);
        assert.ok(found.some((problem) => said.test(problem)), found.join('\n'));
    });
