// SPDX-License-Identifier: Apache-2.0
// Says of each HTTP archive that is named whether an independent reader takes it: "ok", or what is wrong with it.
'use strict';
const { readFileSync } = require('fs');
const validator = require('har-validator');

const say = async (file) => {
    try {
        await validator.har(JSON.parse(readFileSync(file)));
        console.log('ok');
    } catch (error) {
        console.log(JSON.stringify(error.errors || error.message));
    }
};
(async () => {
    for (const file of process.argv.slice(2)) await say(file);
})();
