package com.tarvolin.povzel;

import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;

// A session for each test.
abstract class LoggedIn {
    protected PovZelSession session;

    @BeforeEach
    void logIn() {
        session = PovZelSession.login("DataCurator", "swordfish");
    }

    @AfterEach
    void logOut() {
        session.close();
    }
}
