"""Runs kxadmin-strict on the control node: library/kxadmin.py documents it.

An action and no module: a module is packed, written to a temporary file with its parameters, the
password among them, and started in a Python of its own, which takes two hundred servers minutes.
"""
import os
import re
import subprocess

from ansible.plugins.action import ActionBase

# Lines that do not tell why a command failed.
NO_REASON = re.compile(r'KXADMIN |By the |Locale: |=+$|$')

NOT_REACHED = 2
TIMED_OUT = 124  # as timeout(1) has it


def run(command, environment, password, time_limit):
    """The status of a command and the lines that it printed, on both streams."""
    try:
        done = subprocess.run(command, env=environment, timeout=time_limit, input=password + '\n',
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              encoding='utf-8', errors='replace', check=False)
        return done.returncode, done.stdout.splitlines()
    except subprocess.TimeoutExpired:
        return TIMED_OUT, [f'no answer within {time_limit} s']
    except OSError as error:
        return 127, [f'{command[0]}: {error.strerror}']


class ActionModule(ActionBase):
    def run(self, tmp=None, task_vars=None):
        result = super().run(tmp, task_vars)
        _, options = self.validate_argument_spec({
            'commands': {'type': 'list', 'elements': 'list', 'required': True},
            'environment': {'type': 'dict', 'default': {}},
            'password': {'type': 'str', 'default': '', 'no_log': True},
            'time_limit': {'type': 'int'},
        })
        settings = {name: str(value) for name, value in options['environment'].items()}
        output, faults = [], []
        for command in options['commands']:
            rc, lines = run([str(word) for word in command], os.environ | settings,
                            options['password'], options['time_limit'])
            output += lines
            if rc != 0:
                reason = ' '.join(line for line in lines if not NO_REASON.match(line))
                faults.append(reason or f'{command[0]} ended with {rc}')
            if rc in (NOT_REACHED, TIMED_OUT):
                break  # nor would it answer the others
        result.update(changed=False, failed=bool(faults))
        if faults:
            result['msg'] = '; '.join(faults)
        else:
            result['stdout_lines'] = output
        return result
